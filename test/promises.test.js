'use strict';

// What the promises add to the synchronous functions: the order of calls, bytes that cross threads,
// roots that are open in several threads, and threads that end.

const assert = require('node:assert/strict');
const { AsyncLocalStorage } = require('node:async_hooks');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const { setTimeout: sleep } = require('node:timers/promises');
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const threads = require('node:worker_threads');
const synchronous = require('tarvek');

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// The threads that run, with the names of the calls that each has not answered. A test can act before
// a message is sent, and limit the heap of new threads.
const { Worker } = threads;
const running = new Set();
let beforeMessage = () => {};
let resourceLimits;
threads.Worker = class extends Worker {
  constructor(file, options) {
    super(file, { ...options, resourceLimits });
    this.unanswered = [];
    running.add(this);
    this.on('message', () => this.unanswered.shift());
    this.on('exit', () => running.delete(this));
  }

  postMessage(message, moved) {
    beforeMessage(message, this);
    this.unanswered.push(message.name);
    super.postMessage(message, moved);
  }
};
const tarvek = require('tarvek/promises');

const descriptors = () => fs.readdirSync('/proc/self/fd').length;
const outcomes = async (calls) =>
  (await Promise.allSettled(calls)).map(({ status, reason }) => reason?.code ?? status);

async function until(holds, what) {
  for (const end = Date.now() + 20_000; !holds(); await sleep(5)) assert.ok(Date.now() < end, what);
}

// Afterwards, every thread has ended and every descriptor is closed.
async function withRoot(body) {
  const base = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-promises-')));
  const at = path.join(base, 'root');
  fs.mkdirSync(at);
  const before = descriptors();
  const root = await tarvek.openRoot(at);
  const handle = synchronous.openRoot(at);
  try {
    await body({ root, handle, at, base });
  } finally {
    beforeMessage = () => {};
    synchronous.close(handle);
    await tarvek.close(root);
    fs.rmSync(base, { recursive: true });
  }
  await until(() => running.size === 0, 'threads remain');
  assert.ok(descriptors() <= before, 'descriptors remain');
}

const MIB = Buffer.alloc(2 ** 20, 'm');
const SMALL = MIB.subarray(0, 100);
const STORAGE = { code: 'FILESYSTEM_FAILURE' };
const thrown = new TypeError('from a getter');
const withGetter = (name) => {
  const get = () => {
    throw thrown;
  };
  return Object.defineProperty([], name, { get });
};
const detached = () => {
  const view = new DataView(new ArrayBuffer(9));
  structuredClone(view.buffer, { transfer: [view.buffer] });
  return view;
};
const BODIES = {
  'a pooled Buffer': () => Buffer.from('pooled'),
  'a large Buffer': () => Buffer.from(MIB),
  'shared memory': () => new Uint8Array(new SharedArrayBuffer(20_000)).fill(7),
  'memory of WebAssembly': () => new Uint8Array(new WebAssembly.Memory({ initial: 1 }).buffer),
  'a part of a Uint16Array': () => new Uint16Array(10).fill(513).subarray(2, 5),
  'a detached DataView': detached,
};
const SIZES = [0, 1, 5000, 16_383, 16_384, 65_535, 65_536, 65_537, 0, ...Array(50).fill(3000)];
const BAD_OPTIONS = [null, 1, 'f', () => {}, { signals: 1 }, { signal: null }, { signal: {} }];
const CALLS = process.env.TARVEK_TEST_FULL ? 100_000 : 10_000;

const CASES = {
  'calls run at the same time, and none is sent to a thread that flushes': async ({ root }) => {
    let busiest = 0;
    beforeMessage = (_, { unanswered }) => {
      assert.ok(['', 'exists'].includes(unanswered.join()), unanswered.join());
      const busy = Array.from(running).filter((one) => one.unanswered.length > 0);
      busiest = Math.max(busiest, busy.length);
    };
    const callOf = (_, n) =>
      n % 3 ? tarvek.exists(root, [`${n}`]) : tarvek.write(root, [`${n}`], MIB);
    await Promise.all(Array.from({ length: 40 }, callOf));
    assert.equal(busiest, 4);
  },
  'close waits for the calls before it, and refuses later ones': async ({ root, at }) => {
    await tarvek.ensureDirectory(root, ['d']);
    const inner = await tarvek.openRelative(root, ['d']);
    const writes = ['a', 'b'].map((name) => tarvek.write(root, [name], MIB));
    const closings = [tarvek.close(root), tarvek.close(root)];
    const later = [
      tarvek.read(root, ['a']),
      tarvek.write(root, ['a'], MIB),
      tarvek.append(root, ['a'], 0, 0, MIB),
      tarvek.capture(root, Array(2 ** 32 - 1)),
    ];
    const codes = ['HANDLE_CLOSED', 'PATH_OUT_OF_ROOT', 'FILESYSTEM_FAILURE', 'PATH_OUT_OF_ROOT'];
    assert.deepEqual(await outcomes(later), codes);
    await Promise.all(closings);
    assert.equal(fs.statSync(`${at}/b`).size, MIB.length);
    assert.deepEqual(await outcomes(writes), ['fulfilled', 'fulfilled']);
    assert.equal(await tarvek.exists(inner, ['x']), false);
    await inner[Symbol.asyncDispose ?? assert.fail]();
    await assert.rejects(tarvek.exists(inner, ['x']), { code: 'HANDLE_CLOSED' });
  },
  'bytes are copied when the call is made, and stay whole': async ({ root, handle }) => {
    for (const [name, make] of Object.entries(BODIES)) {
      const body = make();
      synchronous.write(handle, ['expected'], body);
      const size = body.buffer.byteLength;
      const written = tarvek.write(root, ['f'], body);
      assert.equal(body.buffer.byteLength, size, name);
      body.fill?.(1);
      await written;
      const expected = synchronous.read(handle, ['expected']);
      assert.deepEqual(await tarvek.read(root, ['f']), expected, name);
    }
  },
  'files of every size come back in their order': async ({ root, handle, at }) => {
    fs.mkdirSync(`${at}/d/e/empty`, { recursive: true });
    for (const [n, size] of SIZES.entries())
      fs.writeFileSync(`${at}/d/${n}`, Buffer.alloc(size, n));
    fs.writeFileSync(`${at}/d/e/__proto__`, 'no prototype');
    const records = await tarvek.capture(root, [['d']]);
    assert.deepEqual(records, synchronous.capture(handle, [['d']]));
    const [files, expected] = [
      await tarvek.snapshot(root, ['d']),
      synchronous.snapshot(handle, ['d']),
    ];
    assert.deepEqual(Object.entries(files), Object.entries(expected));
    assert.equal(Object.getPrototypeOf(files), null);
    const held = records.map(({ body }) => (body?.length < 16_384 ? body.buffer.byteLength : 0));
    assert.ok(Math.max(...held) <= 65_536, 'a small file does not hold all others');
  },
  'a root that threads find at different places is not opened': async ({ at, base }) => {
    let opened = 0;
    beforeMessage = ({ opens }) => {
      if (!opens?.identity || ++opened > 1) return;
      fs.renameSync(at, `${base}/elsewhere`);
      fs.mkdirSync(at);
    };
    await assert.rejects(tarvek.openRoot(at), { code: 'PATH_OUT_OF_ROOT' });
    assert.equal(opened, 3, 'after the first thread');
  },
  'a thread that ends early fails its call, and no other': async ({ root, at, base }) => {
    beforeMessage = ({ name }, thread) => name === 'write' && thread.terminate();
    const failed = await tarvek.write(root, ['f'], MIB).catch((error) => error);
    assert.deepEqual({ ...failed }, STORAGE);
    assert.match(failed.cause.message, /ended early; what the call changed is unknown/);
    assert.match(failed.stack, /promises\.test\.js/);
    // New threads do not find the root at its path. Only the first one still has it.
    fs.renameSync(at, `${base}/elsewhere`);
    const [first, ...others] = running;
    for (const thread of others) thread.terminate();
    await until(() => !others.some((one) => running.has(one)), 'they run');
    const calls = Array.from({ length: 50 }, () => tarvek.exists(root, ['f']));
    assert.deepEqual(new Set(await outcomes(calls)), new Set(['fulfilled']));
    assert.equal(running.size, 4, 'new threads run');
    first.terminate();
    await until(() => !running.has(first), 'it runs');
    const lost = await tarvek.exists(root, ['f']).catch((error) => error);
    assert.match(`${lost.code}, ${lost.cause}`, /^FILESYSTEM_FAILURE, .*no thread could open/);
  },
  'a signal ends a call that waits, and no other': async ({ root }) => {
    const controller = new AbortController();
    const { signal } = controller;
    const callOf = (_, n) => tarvek.write(root, [`${n}`], SMALL, n < 10 ? undefined : { signal });
    const calls = Array.from({ length: 50 }, callOf);
    const reason = new Error('the client went away');
    controller.abort(reason);
    calls.push(tarvek.openRoot(os.tmpdir(), { signal }), tarvek.close(root, { signal }));
    const reasons = (await Promise.allSettled(calls)).map((one) => one.reason);
    assert.deepEqual(reasons, [...Array(10), ...Array(42).fill(reason)]);
  },
  'a wrong or extra argument rejects, and never throws': async ({ root }) => {
    for (const options of BAD_OPTIONS) {
      await assert.rejects(tarvek.rootIdentity(root, options), STORAGE);
      await assert.rejects(tarvek.write(root, ['f'], SMALL, options), STORAGE);
    }
    await assert.rejects(tarvek.exists(root, ['f'], {}, 1), { code: 'PATH_OUT_OF_ROOT' });
    await assert.rejects(tarvek.exists(root, withGetter(0)), thrown);
    await assert.rejects(tarvek.exists(root, ['f'], withGetter('signal')), thrown);
    const handle = synchronous.openRoot(os.tmpdir());
    await assert.rejects(tarvek.exists(handle, ['f']), { code: 'HANDLE_CLOSED' });
    synchronous.close(handle);
    assert.throws(() => synchronous.exists(root, ['f']), { code: 'HANDLE_CLOSED' });
  },
  'a call continues in the context of its caller': async ({ root }) => {
    const storage = new AsyncLocalStorage();
    const contextAfter = async (call) => {
      await call();
      return storage.getStore();
    };
    const other = () => tarvek.exists(root, ['f']);
    const seen = ['a', 'b'].map((name) => storage.run(name, contextAfter, other));
    assert.deepEqual(await Promise.all([...seen, contextAfter(other)]), ['a', 'b', undefined]);
  },
  'calls in the queue leave nothing behind': async ({ root }) => {
    const callOf = (_, n) => tarvek.create(root, ['', `${n}`], SMALL);
    const run = () => outcomes(Array.from({ length: CALLS / 10 }, callOf));
    const heap = async () => {
      await sleep(100);
      collect();
      return process.memoryUsage().heapUsed;
    };
    // The first rounds also compile.
    for (let round = 0; round < 10; ++round) {
      assert.deepEqual(new Set(await run()), new Set(['PATH_OUT_OF_ROOT']));
    }
    const before = await heap();
    for (let round = 0; round < 10; ++round) await run();
    assert.ok((await heap()) - before < CALLS * 10, 'less than ten bytes for each call');
  },
};
for (const [title, body] of Object.entries(CASES)) test(title, () => withRoot(body));

async function fillHeap() {
  const root = await tarvek.openRoot(os.tmpdir());
  const names = Array(50_000).fill('x'.repeat(1000));
  const full = await tarvek.exists(root, names).catch((error) => error);
  assert.equal(full.cause?.cause?.code, 'ERR_WORKER_OUT_OF_MEMORY');
  assert.equal(await tarvek.exists(root, ['none']), false);
}

test('a thread with a full heap ends, and a forgotten root is closed', async () => {
  resourceLimits = { maxOldGenerationSizeMb: 8 };
  const before = descriptors();
  await fillHeap();
  resourceLimits = undefined;
  await until(() => collect() ?? running.size === 0, 'threads remain');
  assert.ok(descriptors() <= before, 'descriptors remain');
});

test('UV_THREADPOOL_SIZE is the number of threads, up to 16', async () => {
  for (const [size, count] of Object.entries({ 2: 2, 99: 16, 0: 1, none: 1 })) {
    process.env.UV_THREADPOOL_SIZE = size;
    const root = await tarvek.openRoot(os.tmpdir());
    assert.equal(running.size, count, size);
    await tarvek.close(root);
    await until(() => running.size === 0, 'threads remain');
  }
  delete process.env.UV_THREADPOOL_SIZE;
});

test('a call that waits for the only thread goes on in the next one', async () => {
  process.env.UV_THREADPOOL_SIZE = '1';
  beforeMessage = ({ args }, thread) => args[0] === '/fatal' && thread.terminate();
  const calls = ['/none', '/fatal', '/none'].map((at) => tarvek.openRoot(at));
  assert.deepEqual(await outcomes(calls), ['NOT_FOUND', 'FILESYSTEM_FAILURE', 'NOT_FOUND']);
  beforeMessage = () => {};
  delete process.env.UV_THREADPOOL_SIZE;
});

const open = `require('${require.resolve('tarvek/promises')}').openRoot('${os.tmpdir()}')`;
const print = `${open}.then(() => console.log('open'))`;
const thread = `new (require('node:worker_threads').Worker)(${JSON.stringify(print)}, { eval: true })`;
for (const [title, program] of Object.entries({ 'a program': print, 'a thread of one': thread })) {
  test(`${title} ends when no call is pending, with a root open`, () => {
    const options = { encoding: 'utf8', timeout: 60_000 };
    const { status, stdout } = spawnSync(process.execPath, ['-e', program], options);
    assert.deepEqual([status, stdout], [0, 'open\n']);
  });
}
