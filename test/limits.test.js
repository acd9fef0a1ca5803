'use strict';

// A very long run, very deep trees, very large files and very little memory.

const assert = require('node:assert/strict');
const { MAX_LENGTH } = require('node:buffer').constants;
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const test = require('node:test');
const { setImmediate: nextTurn } = require('node:timers/promises');
const { isExternal } = require('node:util').types;
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const { cellsOf, descriptors, enterSandbox, expectOutcome } = require('./support/harness.js');
const { expectProgram, leaveSandbox, place, prepare } = require('./support/harness.js');
const { sandbox, table, thrownBy } = require('./support/harness.js');
const { sparse, symlink } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const MIB = 2 ** 20;
// The runtime of a sanitizer keeps freed memory, and takes the place of malloc.
const isSanitized = /asan/.test(process.env.LD_PRELOAD ?? '');

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

function call(ctx, words) {
  const [operation, args] = prepare(ctx, words);
  return tarvek[operation](...args);
}

// First in its process: once the C library has served large blocks, it keeps larger ones as well.
test('the memory of a large Buffer returns to the system when the Buffer is collected', () => {
  sandbox({ f: sparse(24 * MIB) }, (ctx) => {
    const residentSize = () => {
      // Another thread frees the memory of a Buffer, and a second collection waits for that.
      collect();
      collect();
      return process.memoryUsage.rss();
    };
    const before = residentSize();
    call(ctx, 'read f');
    // In a heap of the C library, these would lie behind that memory and keep it from being returned.
    const later = Array.from(Array(200), () => Buffer.alloc(5000));
    const growth = residentSize() - before;
    assert.ok(isSanitized || growth < 12 * MIB, `${growth} bytes more, ${later.length} Buffers`);

    fs.truncateSync(ctx.at('f'), 12 * MIB);
    // After several reads, the C library serves the memory from a heap that it keeps.
    for (let made = 0; made < 6; made += 1) call(ctx, 'read f');
    const mappings = fs.readFileSync('/proc/self/smaps', 'utf8');
    assert.doesNotMatch(mappings, /^VmFlags:.* hg\b/m, 'a heap stays marked for large pages');
  });
});

const CALLS = process.env.TARVEK_TEST_FULL === '1' ? 300_000 : 30_000;
const CALLS_PER_FORGOTTEN_HANDLE = 10;
const SLACK = 4 * MIB;
const LAYOUT = {
  d: { f: '', s: { g: Buffer.alloc(16_384) }, l: symlink('../d/s') },
  link: symlink('d'),
};
// Together these calls leave the tree as they found it. Through the symlink, each is refused.
const ROUND = cellsOf(`
  exists d/f                 read d/s/g                list d/s
  capture d/f d/s            snapshot d/s              openRoot @d/s
  openRelative d/s           write d/f NEW             write d/f OLD stage
  ensureDirectory d/e/x      create d/e/n NEW          append d/e/n 5 0 OLD
  remove d/e                 create d/n OLD            removeIfEquals d/n OLD
  move d/c d/m               move d/m d/c              ensureRelativeSymlink d/l d/s
  publishVerified fd:d/c d/c d/p OLD                   move d/p d/c`).flat();

// The size of the process after so many calls.
async function sizeAfter(count, handle, round) {
  for (let made = 0; made < count; made += 1) {
    if (made % 1000 === 0) {
      collect();
      // Finalizers run when the event loop turns after a collection.
      await nextTurn();
    }
    if (made % CALLS_PER_FORGOTTEN_HANDLE === 0) tarvek.openRelative(handle, ['d']);
    const [operation, args, code] = round[made % round.length];
    const { thrown, result } = thrownBy(() => tarvek[operation](...args));
    if (isExternal(result)) tarvek.close(result);
    assert.equal(thrown?.code, code, operation);
  }
  collect();
  await nextTurn();
  return process.memoryUsage.rss();
}

test('a long run of calls leaks neither memory nor descriptors', async (t) => {
  const ctx = enterSandbox(LAYOUT);
  t.after(() => leaveSandbox(ctx));
  call(ctx, 'create d/c OLD');
  const round = ROUND.flatMap((words) => [
    [...prepare(ctx, words), undefined],
    [...prepare(ctx, words.replace(/\bd\//g, 'link/')), 'PATH_OUT_OF_ROOT'],
  ]);
  const warmingUp = round.length * 100;
  await sizeAfter(warmingUp, ctx.handle, round);
  // Counted only: the path of an open file reads differently after the file was renamed.
  const before = descriptors().length;
  let size = await sizeAfter(warmingUp, ctx.handle, round);
  let growth = Infinity;
  // The engine's heap may grow in one round, a leak in every round.
  for (let tries = 0; growth > SLACK && tries < 3; tries += 1) {
    const next = await sizeAfter(CALLS, ctx.handle, round);
    growth = next - size;
    size = next;
  }
  t.diagnostic(`${CALLS} calls, ${growth} bytes more`);
  assert.equal(descriptors().length, before, 'open descriptors');
  assert.ok(isSanitized || growth < SLACK, `${growth} bytes more`);
});

const STORAGE_FAILED = 'FILESYSTEM_FAILURE, Repository-local storage operation failed\n';

// The C library gives a thread 64 MiB of address space at its first allocation, at any moment.
process.env.MALLOC_ARENA_MAX = '1';

const [, DESCRIPTORS] = /open files +(\d+)/.exec(fs.readFileSync('/proc/self/limits', 'utf8'));
// The name, the function and its argument, and the descriptors that it takes for each level.
const DEEP = [
  ['capture', 'capture', [['chain']], 1],
  ['snapshot', 'snapshot', ['chain'], 1],
  ['remove', 'remove', ['chain'], 2],
];

function expectDepth(operation, argument, count) {
  // The whole path is longer than the system accepts, and a recursion would need more than this stack.
  const levels = Math.min(2100, Math.floor((Number(DESCRIPTORS) - 200) / count));
  const limits = [['--stack=262144:', '--nofile=500:'], [`--nofile=${DESCRIPTORS}:`]];
  const plan = { root: place.root, operation, argument, limits };
  execFileSync('mkdir', ['-p', place.at('chain', 'd/'.repeat(levels))]);
  try {
    const printed = expectProgram('limited-call.js', plan);
    assert.equal(printed, `0 results, then ${STORAGE_FAILED}1 results\n`);
  } finally {
    // Node.js itself cannot remove so many levels.
    execFileSync('rm', ['-rf', place.root]);
  }
}
table('extreme depth fails without a crash and leaks no descriptor', DEEP, expectDepth);

// `count` files of `size` bytes are in d. As many bytes as `room` files have fit into the free address
// space, and at least `least` calls succeed.
const SCARCE = [
  ['read of 256 MiB', 'read', ['d', '0'], { count: 1, size: 256 * MIB, room: 1.6, least: 1 }],
  ['read of 4 MB', 'read', ['d', '0'], { count: 1, size: 3_900_000, room: 12, least: 8 }],
  ['capture of 8 × 4 MB', 'capture', [['d']], { count: 8, size: 3_900_000, room: 4.5, least: 0 }],
];

function expectScarcity(operation, argument, { count, size, room, least }) {
  const files = Object.fromEntries(Array(count).fill(sparse(size)).entries());
  sandbox({ d: files }, (ctx) => {
    const bytes = Math.round(size * room);
    // The first call compiles what the later ones need, because compiling takes memory.
    const plan = { root: ctx.root, operation, argument, limits: [[]], room: bytes };
    const printed = expectProgram('limited-call.js', plan);
    const [, succeeded, failure] = /^1 results\n(\d+) results, then (.*)$/s.exec(printed) ?? [];
    assert.equal(failure, STORAGE_FAILED, printed);
    assert.ok(Number(succeeded) >= least, printed);
  });
}
table('too little memory fails without a crash', SCARCE, expectScarcity);

// Creates a file without data, as large as the file system accepts.
function makeSparse(at, size) {
  const { status } = spawnSync('truncate', ['-s', String(size), at]);
  if (status !== 0) makeSparse(at, size / 2n);
}

const LARGE = [
  ['one byte larger', BigInt(MAX_LENGTH) + 1n],
  ['as large as a file can be', 2n ** 63n - 1n],
];

table('a file larger than a Buffer is refused', LARGE, (size) => {
  sandbox({ d: { f: '' } }, (ctx) => {
    makeSparse(ctx.at('d', 'f'), size);
    for (const words of ['read d/f', 'capture d', 'snapshot d']) {
      const outcome = thrownBy(() => call(ctx, words));
      expectOutcome('storage', outcome);
    }
  });
});
