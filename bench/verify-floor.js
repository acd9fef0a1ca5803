'use strict';

// Proves with strace that the floor makes the module's system calls: the same ones in the same
// order, on the same files, with the same flags and results. So the module cannot gain a call or
// lose a flush unless floor.cc says so too. Not compared: what a call returns in memory, and calls
// that Node makes as well, which are those for memory, for locks, and getpid. Prints how many calls
// and flushes an operation takes.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { buildFloor, makeRunner } = require('./runners.js');
const { onTree, workloads } = require('./workloads.js');

const MARK = '/proc/self/tarvek-mark';
const chosen = [
  ...workloads(true).filter(({ kind, medium }) => kind === 'small' && medium === 'memory'),
  ...workloads(true).filter(({ name }) => /^read of (1|64) MiB$/.test(name)),
  onTree('capture', 50),
  onTree('snapshot', 50),
];

// In the process that strace watches: marks where each runner's calls begin and end.
function act(base) {
  for (const [index, workload] of chosen.entries()) {
    for (const subject of ['tarvek', 'floor']) {
      const place = path.join(base, String(index));
      const { run, prepare, close } = makeRunner(subject, { ...workload, shared: false }, place);
      prepare();
      fs.existsSync(`${MARK} ${index} ${subject}`);
      run(1);
      fs.existsSync(MARK);
      close();
    }
  }
}

// A line without what may differ in it.
const comparable = (line) =>
  line
    .replace(/\d+<([^>]*)>/g, '<$1>')
    .replace(/0x[0-9a-f]{6,}/g, 'memory')
    .replace(/\b(tarvek|floor)(?=["/>])/g, 'subject')
    .replace(/\.tarvek-[^"> ]*/g, 'temporary')
    .replace(/getrandom\("[^"]*"/, 'getrandom(random');

function callsByRunner(trace) {
  const calls = new Map();
  let current;
  for (const line of trace.split('\n')) {
    if (!line.includes(MARK)) {
      current?.push(comparable(line));
      continue;
    }
    const [, runner] = new RegExp(`${MARK} ([^"]*)`).exec(line) ?? [];
    current = runner && [];
    if (runner) calls.set(runner, current);
  }
  return calls;
}

function differences(calls) {
  return chosen.flatMap(({ name }, index) => {
    const [expected, actual] = ['tarvek', 'floor'].map((subject) =>
      calls.get(`${index} ${subject}`),
    );
    const at = expected.findIndex((call, nth) => call !== actual[nth]);
    if (at < 0 && expected.length === actual.length) return [];
    const [nth, ...lines] = [Math.max(at, 0), expected, actual];
    return [`${name}: call ${nth}`, ...lines.map((list) => `  ${list[nth] ?? 'no more'}`)];
  });
}

function main() {
  buildFloor();
  const base = fs.mkdtempSync(path.join(fs.realpathSync(os.tmpdir()), 'verify-'));
  try {
    const trace = path.join(base, 'trace');
    const strace = [
      '-o',
      trace,
      '-y',
      '-a',
      '1',
      '-s',
      '80',
      '-e',
      'trace=!%memory,futex,getpid',
      '-e',
      'verbose=none',
    ];
    execFileSync('strace', [...strace, process.execPath, __filename, base], { stdio: 'inherit' });
    const calls = callsByRunner(fs.readFileSync(trace, 'latin1'));
    const different = differences(calls);
    for (const [index, workload] of chosen.entries()) {
      const made = calls.get(`${index} tarvek`);
      const flushes = made.filter((call) => call.startsWith('fsync('));
      const times = workload.calls({ at: path.join, candidate: 0 }).length;
      const [all, flushed] = [made, flushes].map((list) => list.length / times);
      console.log(`${workload.name}: ${all} calls, ${flushed} of them flushes`);
    }
    if (different.length > 0) throw new Error(`the floor differs\n${different.join('\n')}`);
  } finally {
    fs.rmSync(base, { recursive: true });
  }
}

if (process.argv[2]) act(process.argv[2]);
else main();
