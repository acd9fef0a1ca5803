'use strict';

// How many system calls each operation makes, and how many of them flush: what its guarantees cost,
// on any machine. Counted with strace, without those that ask for memory.

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const test = require('node:test');
const { place, prepare, sandbox, table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const MARK = '/proc/self/calls-of';
// Calls, flushes, walks to a leaf's directory, proofs of such a walk. A walk takes four more calls a
// directory, a proof three.
const COSTS = `
openRoot                                8 0 1 1   openRelative                    6 0 1 1
exists                                  5 0 1 1   exists, an ancestor missing     7 0 0 0
read                                    9 0 1 1   list                           15 0 1 1
capture                                46 0 1 2   snapshot                       36 0 1 1
write                                  15 2 1 2   create                         10 2 1 1
append                                 12 2 1 1   exchangeForTest                 1 0 0 0
ensureDirectory, nothing                7 1 1 1   ensureDirectory, a directory    5 0 1 1
remove, a file                          7 1 1 1   remove, a directory            33 3 1 1
removeIfEquals                         16 1 1 2   move                           13 2 2 2
ensureRelativeSymlink                  14 1 2 3   publishVerified                24 2 2 4
ensureRelativeSymlink, itself          11 0 2 2`;
const COST = /(\S.*?) {2,}(\d+) (\d) (\d) (\d)/g;
const costs = new Map(
  Array.from(COSTS.matchAll(COST), ([, name, ...cost]) => [name, cost.map(Number)]),
);

function expectedCost({ name, operation, paths, missing }) {
  const key = `${operation},${name.split(',')[1]}`;
  const [calls, flushes, walks, proofs] = costs.get(key) ?? costs.get(operation);
  const above = { openRoot: place.root.split('/').length - 1, openRelative: 0 }[operation] ?? -1;
  const directories = paths[0].length + above;
  const made = missing ? directories : 0;
  // What is missing costs a failed open, a mkdir and a flush.
  return [calls + directories * (4 * walks + 3 * proofs) + 3 * made, flushes + made];
}

// In the process under strace: every scenario's call stands between two marks.
function act({ before, call, check }) {
  sandbox(before, (ctx) => {
    ctx.stage = () => {};
    const [operation, args] = prepare(ctx, call);
    fs.existsSync(MARK);
    const result = tarvek[operation](...args);
    fs.existsSync(MARK);
    check(result, ctx);
  });
}

function countAll() {
  const trace = `${place.base}/trace`;
  const own = '-E ASAN_OPTIONS=detect_leaks=0 -e trace=!%memory,futex'.split(' ');
  execFileSync('strace', ['-o', trace, ...own, process.execPath, __filename, 'act']);
  const parts = fs.readFileSync(trace, 'latin1').split(MARK);
  const row = (scenario, index) => {
    const calls = parts[2 * index + 1].split('\n').slice(1, -1);
    const cost = [calls.length, calls.filter((call) => call.startsWith('fsync(')).length];
    const told = calls.join('\n');
    return [scenario.name, () => assert.deepEqual(cost, expectedCost(scenario), told)];
  };
  table('calls and flushes', scenarios.map(row));
}

if (process.argv[2] === 'act') scenarios.forEach(act);
else if (process.env.CI || !spawnSync('strace', ['-V']).error) countAll();
else test('calls and flushes', { skip: 'strace is needed and was not found' });
