'use strict';

// Trees and files far larger than any stack or memory, met by a worker thread, whose stack is the
// smaller one, on a file system in memory: no other takes a file of this size, and there a chain
// this long is quickly made and removed.

process.env.TMPDIR = '/dev/shm';

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const { once } = require('node:events');
const fs = require('node:fs');
const test = require('node:test');
const { Worker } = require('node:worker_threads');
const { place, descriptors, expectOutcome, thrownBy } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

const LEVELS = 15_000;
const HUGE = '9223372036854775807';
const chain = (name, levels) => execFileSync('mkdir', ['-p', place.at(name, 'd/'.repeat(levels))]);
const limitTo = (limit) => execFileSync('prlimit', [`--pid=${process.pid}`, limit]);
const setLimit = (count) => limitTo(`--nofile=${count}:`);

// What comes of everything that goes down a tree or reads a file; the worker runs this text.
function outcomes(tarvek, root) {
  const handle = tarvek.openRoot(root);
  const calls = [
    () => tarvek.capture(handle, [['chain']]).length,
    () => Object.keys(tarvek.snapshot(handle, ['chain'])).length,
    () => tarvek.remove(handle, ['short']),
    () => tarvek.read(handle, ['sparse', 'f']),
    () => tarvek.capture(handle, [['sparse']]),
    () => tarvek.snapshot(handle, ['sparse']),
    () => tarvek.close(handle),
  ];
  return calls.map((call) => {
    try {
      return call();
    } catch (error) {
      return error.code;
    }
  });
}

async function inWorker() {
  const module = JSON.stringify(process.env.TARVEK_MODULE ?? require.resolve('..'));
  const call = `(${outcomes})(require(${module}), ${JSON.stringify(place.root)})`;
  const code = `require('node:worker_threads').parentPort.postMessage(${call})`;
  const worker = new Worker(code, { eval: true });
  const [[all]] = await Promise.all([once(worker, 'message'), once(worker, 'exit')]);
  return all;
}

test('depth and size end in a failure, never in a crash, and leave no descriptor', async () => {
  const [, limit] = /open files +(\d+)/.exec(fs.readFileSync('/proc/self/limits', 'utf8'));
  // Removing takes two descriptors a level, the others one.
  const short = Math.min(LEVELS, Math.floor((limit - 200) / 2));
  const failed = Array(6).fill('FILESYSTEM_FAILURE');
  const deep = LEVELS + 200 < limit ? [LEVELS + 1, 0, undefined] : [...failed.slice(4), undefined];
  try {
    chain('chain', LEVELS);
    chain('short', short);
    chain('sparse', 0);
    execFileSync('truncate', ['-s', HUGE, place.at('sparse', 'f')]);
    const before = descriptors();
    setLimit(500);
    assert.deepEqual(await inWorker(), [...failed, undefined]);
    setLimit(limit);
    assert.deepEqual(await inWorker(), [...deep, ...failed.slice(3), undefined]);
    assert.deepEqual(descriptors(), before);
  } finally {
    setLimit(limit);
    execFileSync('rm', ['-rf', place.root]);
  }
});

test('memory that suffices for the bytes and not for their Buffer ends in a failure', () => {
  const bytes = 1 << 28;
  fs.mkdirSync(place.root);
  fs.writeFileSync(place.at('f'), '');
  fs.truncateSync(place.at('f'), bytes);
  const handle = tarvek.openRoot(place.root);
  const calls = { read: ['f'], capture: [['f']] };
  const expectAll = (expected) => {
    for (const [name, path] of Object.entries(calls)) {
      expectOutcome(
        expected,
        thrownBy(() => tarvek[name](handle, path)),
      );
    }
  };
  const [, used] = /VmSize:\s+(\d+)/.exec(fs.readFileSync('/proc/self/status', 'utf8'));
  try {
    limitTo(`--as=${used * 1024 + bytes * 1.5}:`);
    expectAll('storage');
    limitTo('--as=unlimited:');
    expectAll('-');
  } finally {
    limitTo('--as=unlimited:');
    tarvek.close(handle);
    fs.rmSync(place.root, { recursive: true });
  }
});
