'use strict';

// tarvek in a server. A call blocks its thread until it is done, so the calls run in a worker
// thread here, and the main thread gets promises:
//
//   const { openRoot } = require('./server.js');
//   const root = await openRoot('/srv/app/data');
//   const bytes = await root.read(['reports', 'today.json']);
//   await root.close();
//
// - Each root has a worker thread of its own, since a handle cannot be sent to another thread. The
//   calls of a root run in the order in which they were made. To run calls at the same time, open
//   the directory more than once.
// - A Buffer passed to a call is given away: its memory is transferred to the worker, not copied,
//   and the Buffer has length 0 afterwards. If the call fails, the error returns the bytes as
//   `error.body`. Buffers in a result arrive in the same way. Two kinds are copied: a Buffer that
//   shares its memory with others, such as one from Node's pool, and one below 16 KiB, since
//   copying it is faster.
// - The main thread still unpacks the results. Thousands of small files take noticeable time there.
// - A failed call rejects with the code and the message that tarvek threw.
// - `close` waits for the calls before it. A call after it rejects with HANDLE_CLOSED.
// - A root without a pending call does not keep the process running, even if it was not closed.
// - If the worker ends early, pending and later calls reject with WORKER_ENDED. Whether a pending
//   call changed something is then unknown. Open the directory again and look.
// - The stage callback of `write` cannot be passed, since functions cannot leave their thread.
//   `openRelative`, `setTestHook` and `exchangeForTest` are not offered, and a hook set in the main
//   thread does not reach the worker.
// - Close the descriptor given to `publishVerified` only after the promise is settled.

const { Worker, parentPort, workerData } = require('node:worker_threads');

const CALLS = [
  ...['rootIdentity', 'exists', 'list', 'capture', 'snapshot', 'read', 'write', 'create', 'append'],
  ...['ensureDirectory', 'ensureRelativeSymlink', 'remove', 'removeIfEquals', 'move'],
  'publishVerified',
];
// Marks the worker. If your own worker loads this file, this file treats it as a main thread.
const ROLE = 'tarvek worker';
// The time to transfer many Buffers at once grows with the square of their number.
const SMALL = 16 * 1024;
const CLOSED = { code: 'HANDLE_CLOSED', message: 'Directory handle is closed' };

// The same value with each part of one class changed.
function convert(value, Class, change) {
  if (value instanceof Class) return change(value);
  if (Array.isArray(value)) return value.map((part) => convert(part, Class, change));
  if (value === null || typeof value !== 'object') return value;
  const entries = Object.entries(value);
  return Object.fromEntries(entries.map(([key, part]) => [key, convert(part, Class, change)]));
}

// Every Buffer in `value` travels as an ArrayBuffer of its own.
function post(port, { value, ...message }) {
  const transferred = new Set();
  const toMemory = (bytes) => {
    const { buffer } = bytes;
    // A transfer takes the memory away from everything that uses a part of it.
    const isOwner = buffer instanceof ArrayBuffer && buffer.byteLength === bytes.byteLength;
    const memory = isOwner ? buffer : new Uint8Array(bytes).buffer;
    if (memory.byteLength >= SMALL) transferred.add(memory);
    return memory;
  };
  message.value = convert(value, Uint8Array, toMemory);
  try {
    port.postMessage(message, [...transferred]);
  } catch {
    // Some memory cannot be transferred, such as WebAssembly's. What cannot be copied throws again.
    port.postMessage(message);
  }
}

const received = (value) => convert(value, ArrayBuffer, (memory) => Buffer.from(memory));

// --- In the worker thread -----------------------------------------------------------------------

function serve(port) {
  const tarvek = require('tarvek');
  let root;

  function run(name, args) {
    if (name !== 'openRoot') return tarvek[name](root, ...args);
    root = tarvek.openRoot(...args);
    return undefined;
  }

  port.on('message', ({ id, name, value }) => {
    const args = received(value);
    let answer;
    try {
      answer = { id, value: run(name, args) };
    } catch ({ code, message }) {
      answer = { id, failure: { code, message }, value: args.find(Buffer.isBuffer) };
    }
    post(port, answer);
  });
}

// --- In the main thread -------------------------------------------------------------------------

function errorFrom({ code, message }, body) {
  return Object.assign(new Error(message), { code }, body && { body });
}

// A worker, and a function that sends it one call and resolves to its answer.
function startWorker() {
  const worker = new Worker(__filename, { workerData: ROLE });
  const pending = new Map();
  let lastId = 0;
  let ended;

  function send(name, args) {
    return new Promise((resolve, reject) => {
      if (ended) throw ended;
      const id = ++lastId;
      post(worker, { id, name, value: args });
      pending.set(id, { resolve, reject });
      worker.ref();
    });
  }

  function settle(id) {
    const call = pending.get(id);
    pending.delete(id);
    // Only a pending call keeps the process running.
    if (pending.size === 0) worker.unref();
    return call;
  }

  function end(cause) {
    ended ??= errorFrom({ code: 'WORKER_ENDED', message: 'the worker thread has ended' });
    ended.cause ??= cause;
    for (const id of [...pending.keys()]) settle(id).reject(ended);
    // The worker still runs if one of its answers could not be received.
    worker.terminate();
  }

  worker.on('message', (answer) => settle(answer.id)?.resolve(answer));
  worker.on('error', end).on('messageerror', end);
  worker.on('exit', (code) => end(new Error(`exit code ${code}`)));
  return { worker, send };
}

async function openRoot(path) {
  const { worker, send } = startWorker();
  let closing;

  async function call(name, ...args) {
    const { value, failure } = await send(name, args);
    const result = received(value);
    // Created here and not where the answer arrives, so that its stack names the caller.
    if (failure) throw errorFrom(failure, result);
    // A copied object has a prototype. Remove it.
    return name === 'snapshot' ? Object.setPrototypeOf(result, null) : result;
  }

  async function callIfOpen(name, ...args) {
    if (closing) throw errorFrom(CLOSED);
    return await call(name, ...args);
  }

  async function close() {
    closing ??= call('close').finally(() => worker.terminate());
    await closing;
  }

  try {
    await call('openRoot', path);
  } catch (error) {
    await worker.terminate();
    throw error;
  }
  const calls = CALLS.map((name) => [name, (...args) => callIfOpen(name, ...args)]);
  return { ...Object.fromEntries(calls), close };
}

module.exports = { openRoot };

// --- A demonstration ----------------------------------------------------------------------------

const RUNS = 5;

// The longest time for which a timer of 1 ms had to wait.
async function longestBlock(work) {
  let last = performance.now();
  let longest = 0;
  const tick = () => {
    const now = performance.now();
    longest = Math.max(longest, now - last);
    last = now;
  };
  const timer = setInterval(tick, 1);
  await work();
  tick();
  clearInterval(timer);
  return longest;
}

async function medianBlock(work, root) {
  const times = [];
  for (let run = 0; run < RUNS; ++run) {
    const body = Buffer.alloc(32 * 2 ** 20);
    times.push(await longestBlock(() => work(root, body)));
  }
  return times.sort((a, b) => a - b)[(RUNS - 1) / 2];
}

// Each takes a root and returns what its call returns: the value itself, or a promise of it.
const WORK = {
  'write 32 MiB, flushed': (root, body) => root.write(['big'], body),
  'read 32 MiB': (root) => root.read(['big']),
  'capture 32 files of 1 MiB': (root) => root.capture([['files']]),
};

// The same calls without a worker.
function openDirectly(directory) {
  const tarvek = require('tarvek');
  const handle = tarvek.openRoot(directory);
  const calls = [...CALLS, 'close'].map((name) => [
    name,
    (...args) => tarvek[name](handle, ...args),
  ]);
  return Object.fromEntries(calls);
}

async function compare(directory) {
  const roots = [openDirectly(directory), await openRoot(directory)];
  console.log(`How long the main thread was blocked, median of ${RUNS}:`);
  console.log(`${' '.repeat(34)}without a worker   with one`);
  for (const [what, work] of Object.entries(WORK)) {
    const cells = [];
    for (const root of roots) cells.push(`${(await medianBlock(work, root)).toFixed(1)} ms`);
    console.log(`  ${what.padEnd(28)}${cells[0].padStart(20)}${cells[1].padStart(11)}`);
  }
  await roots[1].read(['missing']).catch((error) => console.log(`An error arrives: ${error.code}`));
  await Promise.all(roots.map((root) => root.close()));
}

async function demonstrate() {
  const fs = require('node:fs');
  const os = require('node:os');
  const path = require('node:path');
  const directory = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-server-')));
  try {
    fs.mkdirSync(path.join(directory, 'files'));
    for (let number = 0; number < 32; ++number) {
      fs.writeFileSync(path.join(directory, 'files', String(number)), Buffer.alloc(2 ** 20));
    }
    await compare(directory);
  } finally {
    fs.rmSync(directory, { recursive: true });
  }
}

if (workerData === ROLE) serve(parentPort);
else if (require.main === module) demonstrate();
