'use strict';

// A very long run, very deep trees, very large files and very little memory.

const assert = require('node:assert/strict');
const { MAX_LENGTH } = require('node:buffer').constants;
const { execFileSync, spawnSync } = require('node:child_process');
const { once } = require('node:events');
const fs = require('node:fs');
const test = require('node:test');
const { setImmediate: turn } = require('node:timers/promises');
const { isExternal } = require('node:util').types;
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const { Worker } = require('node:worker_threads');
const harness = require('./support/harness.js');
const { OLD, build, symlink } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const { descriptors, expectOutcome, lines, place, prepare, sandbox, table, thrownBy } = harness;
const CALLS = process.env.TARVEK_TEST_FULL === '1' ? 1_000_000 : 100_000;
const CALLS_PER_HANDLE = 10;
const SLACK = 4 * 1024 * 1024;
const MODULE = process.env.TARVEK_MODULE || require.resolve('..');
const sanitized = /asan/.test(process.env.LD_PRELOAD ?? '');
setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// First in its process: once the C library has served large blocks, it keeps larger ones as well.
test('the memory of a large Buffer returns to the system when the Buffer is collected', () => {
  sandbox({ f: '' }, (ctx) => {
    // A Buffer's memory is freed on another thread, and a second collection waits for that.
    const resident = () => collect() ?? collect() ?? process.memoryUsage.rss();
    fs.truncateSync(ctx.at('f'), 24 << 20);
    const before = resident();
    call(ctx, 'read f');
    const kept = Array.from(Array(200), () => Buffer.alloc(5000));
    const grown = resident() - before;
    assert.ok(sanitized || grown < 3 * SLACK, `${grown} bytes more, with ${kept.length} Buffers`);
    fs.truncateSync(ctx.at('f'), 12 << 20);
    // After several reads, the C library serves the memory from a heap that it keeps.
    for (let i = 0; i < 6; ++i) call(ctx, 'read f');
    const mappings = fs.readFileSync('/proc/self/smaps', 'utf8');
    assert.doesNotMatch(mappings, /^VmFlags:.* hg\b/m, 'a heap stays marked for large pages');
  });
});

// Together the calls leave the tree as they found it. Through the symlink, every call is refused.
const BIG = Buffer.alloc(4096);
const LAYOUT = {
  ...{ d: { f: OLD, c: OLD, s: { g: 'one' }, l: symlink('../d/s') }, link: symlink('d') },
  ...{ tree: { big: BIG, link: symlink('big') }, hooked: { big: BIG } },
};
const THROWN = { code: 'thrown by the hook' };
const ROUND = lines(`
  exists d/f                 read d/f                  list d/s
  capture d/f d/s            snapshot d/s              openRoot @d/s
  openRelative d/s           write d/f NEW             write d/f OLD stage
  ensureDirectory d/e/x      create d/e/n NEW          append d/e/n 5 0 OLD
  remove d/e                 create d/n OLD            removeIfEquals d/n OLD
  move d/c d/m               move d/m d/c              ensureRelativeSymlink d/l d/s
  publishVerified fd:d/c d/c d/p OLD                   move d/p d/c`).flat();

// Finalizers run when the event loop turns after a collection.
async function work(handle, round, calls) {
  for (let made = 0; made < calls; ++made) {
    if (made % 2000 === 0) await turn(collect());
    if (made % 1000 === 0) {
      tarvek.setTestHook(({ segment }) => {
        if (segment === 'hooked/big') throw THROWN;
      });
    }
    if (made % CALLS_PER_HANDLE === 0) tarvek.openRelative(handle, ['d']);
    const [operation, args, code] = round[made % round.length];
    const { thrown, result } = thrownBy(() => tarvek[operation](...args));
    if (isExternal(result)) tarvek.close(result);
    assert.equal(thrown?.code, code, operation);
  }
  await turn(collect());
  return process.memoryUsage().rss;
}

test('a long run of calls leaks neither memory nor descriptors', async (t) => {
  build(place.root, LAYOUT);
  const ctx = { ...place, handle: tarvek.openRoot(place.root), open: fs.openSync };
  const round = ROUND.flatMap((words) => [
    [...prepare(ctx, words), undefined],
    [...prepare(ctx, words.replace(/\bd\//g, 'link/')), 'PATH_OUT_OF_ROOT'],
  ]);
  // These fail when bytes have been read.
  round.push([...prepare(ctx, 'capture hooked'), THROWN.code]);
  for (const words of ['capture tree', 'snapshot tree']) {
    round.push([...prepare(ctx, words), 'PATH_OUT_OF_ROOT']);
  }
  const warmth = round.length * 250;
  await work(ctx.handle, round, warmth);
  // Counted only: the path of an open file reads differently after the file was renamed.
  const before = descriptors().length;
  let [grown, size] = [Infinity, await work(ctx.handle, round, warmth)];
  // The engine's heap may grow in one round, a leak in every round.
  for (let tries = 0; grown > SLACK && tries < 3; ++tries) {
    const next = await work(ctx.handle, round, CALLS);
    [grown, size] = [next - size, next];
  }
  t.diagnostic(`${CALLS} calls, ${CALLS / CALLS_PER_HANDLE} handles dropped, ${grown} bytes more`);
  assert.equal(descriptors().length, before, 'open descriptors');
  assert.ok(sanitized || grown < SLACK, `${grown} bytes more`);
  fs.rmSync(place.root, { recursive: true });
});

// Creates a file without data, as large as the file system accepts.
function makeSparse(at, size) {
  const { status } = spawnSync('truncate', ['-s', String(size), at]);
  if (status !== 0) makeSparse(at, size / 2n);
}

const LEVELS = 15_000;
const limitTo = (limit) => execFileSync('prlimit', [`--pid=${process.pid}`, limit]);
const LARGE = ['read sparse/f', 'capture sparse', 'snapshot sparse'];
const HEAVY = ['capture chain', 'snapshot chain', 'remove short', ...LARGE];
// Makes calls in a worker, because its stack is smaller. Posts the size of each result, or a code.
const WORKER = `
  const { parentPort, workerData } = require('node:worker_threads');
  const tarvek = require(workerData.module);
  const handle = tarvek.openRoot(workerData.root);
  const outcomes = workerData.calls.map(([operation, [, ...args]]) => {
    try {
      return Object.keys(tarvek[operation](handle, ...args) ?? {}).length;
    } catch (error) {
      return error.code;
    }
  });
  tarvek.close(handle);
  parentPort.postMessage(outcomes);`;

async function expectInWorker(...expected) {
  const calls = HEAVY.map((words) => prepare(place, words));
  const workerData = { module: MODULE, root: place.root, calls };
  const worker = new Worker(WORKER, { eval: true, workerData });
  const [[outcomes]] = await Promise.all([once(worker, 'message'), once(worker, 'exit')]);
  assert.deepEqual(outcomes, expected, HEAVY.join(', '));
}

test('extreme depth and size fail without a crash and leak no descriptor', async (t) => {
  const [, limit] = /open files +(\d+)/.exec(fs.readFileSync('/proc/self/limits', 'utf8'));
  t.after(() => {
    limitTo(`--nofile=${limit}:`);
    execFileSync('rm', ['-rf', place.root]);
  });
  // remove takes two descriptors for each level, the others take one.
  const removable = Math.min(LEVELS, Math.floor((limit - 200) / 2));
  for (const [name, levels] of Object.entries({ chain: LEVELS, short: removable, sparse: 0 })) {
    execFileSync('mkdir', ['-p', place.at(name, 'd/'.repeat(levels))]);
  }
  makeSparse(place.at('sparse', 'f'), 2n ** 63n - 1n);
  const failed = Array(6).fill('FILESYSTEM_FAILURE');
  const before = descriptors();
  limitTo('--nofile=500:');
  await expectInWorker(...failed);
  limitTo(`--nofile=${limit}:`);
  const deep = LEVELS + 200 < limit ? [LEVELS + 1, 0] : failed.slice(4);
  await expectInWorker(...deep, 0, ...failed.slice(3));
  assert.deepEqual(descriptors(), before);
});

const filesOf = (count, content) => Object.fromEntries(Array(count).fill(content).entries());
const call = (ctx, words) => {
  const [operation, args] = prepare(ctx, words);
  return tarvek[operation](...args);
};

// A process that repeats a call until it fails, and prints the number of results and the failure.
// All code that it then needs has run before, because compiling takes memory too.
const GREEDY_PROCESS = `
  const { execFileSync } = require('node:child_process');
  const fs = require('node:fs');
  const { module, root, operation, path, room } = JSON.parse(process.argv[1]);
  const tarvek = require(module);
  const handle = tarvek.openRoot(root);
  function repeat(most) {
    const results = [];
    try {
      while (results.length < most) results.push(tarvek[operation](handle, path));
      return results.length + ' results';
    } catch ({ code, message }) {
      return results.length + ' results, then ' + code + ', ' + message;
    }
  }
  const print = (text) => fs.writeSync(1, text);
  print(repeat(1) + '; ');
  const [used] = /(?<=VmSize:.*)[0-9]+/.exec(fs.readFileSync('/proc/self/status', 'utf8'));
  const limit = Math.round(used * 1024 + room);
  execFileSync('prlimit', ['--pid=' + process.pid, '--as=' + limit]);
  print(repeat(Infinity));
  process.reallyExit(0);`;

// The call, the number and the size of the files in d, how many such files the free address space
// can hold, and how many results fit into it at least.
const SCARCE = lines(`
  read d/0    1   536870912  1.6  1
  read d/0    1   3900000    1.5  1
  read d/0    1   100000     50   20
  capture d   8   3900000    4.5  0
  snapshot d  8   3900000    4.5  0
  snapshot d  80  30000      40   0`);
const scarce = SCARCE.map(([words, ...numbers]) => {
  const [count, size, ...more] = numbers.map(Number);
  return [`${words}, ${count} of ${size} bytes`, { d: filesOf(count, '') }, words, size, ...more];
});
// A sanitizer takes so much address space for small blocks that the engine fails first.
const possible = scarce.filter(([, , , size]) => size > 1e6 || !sanitized);

const scarcely = (layout, ...rest) => sandbox(layout, (ctx) => expectScarce(ctx, ...rest));
table('too little memory fails without a crash', possible, scarcely);

function expectScarce(ctx, words, size, room, fit) {
  for (const name of fs.readdirSync(ctx.at('d'))) fs.truncateSync(ctx.at('d', name), size);
  const [operation, [, path]] = prepare(ctx, words);
  const plan = { module: MODULE, root: ctx.root, operation, path, room: size * room };
  const script = ['-e', GREEDY_PROCESS, JSON.stringify(plan)];
  // The C library gives a thread 64 MiB of address space at its first allocation, at any moment.
  const env = { ...process.env, MALLOC_ARENA_MAX: '1' };
  const { stdout, stderr } = spawnSync(process.execPath, script, { encoding: 'utf8', env });
  const [, count, end] = /^1 results; (\d+) results, then (.*)$/.exec(stdout) ?? [];
  assert.equal(end, 'FILESYSTEM_FAILURE, Repository-local storage operation failed', stderr);
  assert.ok(count >= fit, stdout);
}

const bytesRead = () => Number(/rchar: (\d+)/.exec(fs.readFileSync('/proc/self/io', 'utf8'))[1]);

test('a file larger than a Buffer is refused before a byte is read', () => {
  sandbox({ d: { f: '' } }, (ctx) => {
    makeSparse(ctx.at('d', 'f'), BigInt(MAX_LENGTH) + 1n);
    for (const words of ['read d/f', 'capture d', 'snapshot d']) {
      const before = bytesRead();
      const outcome = thrownBy(() => call(ctx, words));
      expectOutcome('storage', outcome);
      assert.ok(bytesRead() - before < 1 << 20, words);
    }
  });
});

test('the events of a hook can be collected before the call ends', () => {
  sandbox({ d: filesOf(200, '') }, (ctx) => {
    let held;
    tarvek.setTestHook((event) => {
      event.payload = Array(10_000).fill(0.5);
      if (event.point !== 'capture-directory-read') return;
      collect();
      held = process.memoryUsage().heapUsed;
    });
    collect();
    const before = process.memoryUsage().heapUsed;
    call(ctx, 'capture d');
    assert.ok(held - before < SLACK, `${held - before} bytes held`);
  });
});
