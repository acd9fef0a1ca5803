'use strict';

// Trees and files far larger than any stack or memory, on a file system in memory: no other takes a
// file of this size, and there chains this long are quickly made and removed.

process.env.TMPDIR = '/dev/shm';

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const test = require('node:test');
const { Worker } = require('node:worker_threads');
const { place, descriptors } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

const LEVELS = 15_000;
const HUGE = '9223372036854775807';
const chain = (name, levels) => execFileSync('mkdir', ['-p', place.at(name, 'd/'.repeat(levels))]);
const setLimit = (count) => execFileSync('prlimit', [`--pid=${process.pid}`, `--nofile=${count}:`]);

// What comes of everything that goes down a tree or reads a file; a worker runs it as well.
function outcomes(tarvek, root) {
  const handle = tarvek.openRoot(root);
  const calls = [
    () => tarvek.capture(handle, [['chain']]).length,
    () => Object.keys(tarvek.snapshot(handle, ['chain'])).length,
    () => tarvek.remove(handle, ['short']),
    () => tarvek.read(handle, ['sparse', 'f']),
    () => tarvek.capture(handle, [['sparse']]),
    () => tarvek.snapshot(handle, ['sparse']),
  ];
  const all = calls.map((call) => {
    try {
      return call();
    } catch (error) {
      return error.code;
    }
  });
  tarvek.close(handle);
  return all;
}

function inWorker() {
  const module = JSON.stringify(process.env.TARVEK_MODULE ?? require.resolve('..'));
  const call = `(${outcomes})(require(${module}), ${JSON.stringify(place.root)})`;
  const code = `require('node:worker_threads').parentPort.postMessage(${call})`;
  const worker = new Worker(code, { eval: true });
  return new Promise((resolve, reject) => worker.on('message', resolve).on('error', reject));
}

test('depth and size end in a failure, never in a crash, and leave no descriptor', async () => {
  const [, limit] = /open files +(\d+)/.exec(fs.readFileSync('/proc/self/limits', 'utf8'));
  // Removing takes two descriptors a level, the others one.
  const short = Math.min(LEVELS, Math.floor((limit - 200) / 2));
  const failed = Array(6).fill('FILESYSTEM_FAILURE');
  const deep = LEVELS + 200 < limit ? [LEVELS + 1, 0, undefined] : [...failed.slice(4), undefined];
  const expected = [...deep, ...failed.slice(3)];
  try {
    chain('chain', LEVELS);
    chain('short', short);
    chain('sparse', 0);
    execFileSync('truncate', ['-s', HUGE, place.at('sparse', 'f')]);
    const before = descriptors();
    setLimit(500);
    assert.deepEqual(outcomes(tarvek, place.root), failed);
    setLimit(limit);
    assert.deepEqual(outcomes(tarvek, place.root), expected);
    assert.deepEqual(descriptors(), before);
    chain('short', short);
    assert.deepEqual(await inWorker(), expected);
  } finally {
    setLimit(limit);
    execFileSync('rm', ['-rf', place.root]);
  }
});
