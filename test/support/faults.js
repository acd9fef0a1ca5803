'use strict';

// Calls the module with test/interpose/faults.c between it and libc. A test file that requires this
// one restarts in a child process that preloads the library. The parent only passes on the exit
// status.

const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { getSystemErrorName } = require('node:util');
const { expectOutcome, place, prepare, sandbox, thrownBy, treeOf } = require('./harness.js');
const tarvek = require('./tarvek.js');

const { TARVEK_TEST_PRELOADED, LD_PRELOAD = '', ASAN_OPTIONS = '' } = process.env;

const CACHE = path.join(__dirname, '../../build/Release/CMakeCache.txt');
// Lazy binding: child processes other than Node load the library too, and have no Node-API.
const OPTIONS = '-std=c11 -O1 -Wall -Wextra -Werror -shared -fPIC -Wl,-z,lazy -x c'.split(' ');

// Compiles the library and runs the test file again with it. Compiling takes 0.1 s. The compiler is
// the one that built the module, because it compiles C too.
function restartPreloaded() {
  const cache = fs.readFileSync(CACHE, 'utf8');
  const [, compiler] = /^CMAKE_CXX_COMPILER:\w+=(.+)/m.exec(cache);
  // LD_PRELOAD splits its value at spaces and colons.
  const directory = /[ :]/.test(place.base) ? fs.mkdtempSync('/tmp/tarvek-') : place.base;
  const preloaded = path.join(directory, 'faults.so');
  const source = path.join(__dirname, '../interpose/faults.c');
  execFileSync(compiler, [...OPTIONS, source, '-ldl', '-o', preloaded]);
  const env = {
    ...process.env,
    TARVEK_TEST_PRELOADED: preloaded,
    // Before a sanitizer's runtime: otherwise that makes the calls, and only the module's count.
    LD_PRELOAD: `${preloaded}:${LD_PRELOAD}`,
    ASAN_OPTIONS: `${ASAN_OPTIONS}:verify_asan_link_order=0`,
  };
  const args = [...process.execArgv, ...process.argv.slice(1)];
  const run = spawnSync(process.execPath, args, { stdio: 'inherit', env });
  fs.rmSync(directory, { recursive: true });
  if (run.signal) console.error(`tarvek: the process under test ended by ${run.signal}`);
  process.exit(run.status ?? 1);
}
if (!TARVEK_TEST_PRELOADED) restartPreloaded();

const ACTIONS = ['nothing', 'fail', 'short', 'zero', 'alter'];
// How to alter each field of struct stat: its offset, a mask of the bits to keep, and a number to
// add. The mode is the lower half of the 64 bits at its offset.
const FAR = 2n ** 40n;
const TYPE = 0o170000n;
const FIELDS = {
  ...{ device: [0n, -1n, FAR], inode: [8n, -1n, FAR] },
  ...{ link: [24n, ~TYPE, 0o120000n], special: [24n, ~TYPE, 0o010000n], mode: [24n, -1n, 0o4000n] },
  ...{ links: [16n, -1n, 1n], unlinked: [16n, 0n, 0n] },
  ...{ smaller: [48n, -1n, -1n], larger: [48n, -1n, 1n], negative: [48n, 0n, -1n] },
  ...{ mtime: [88n, -1n, 1n], mtimeNs: [96n, -1n, 1n] },
  ...{ ctime: [104n, -1n, 1n], ctimeNs: [112n, -1n, 1n] },
};

const shared = { exports: {} };
process.dlopen(shared, TARVEK_TEST_PRELOADED);
// The `state` of faults.c: five fields of 64 bits, nine of 32 bits, then the record.
const longs = new BigInt64Array(shared.exports, 0, 5);
const ints = new Int32Array(shared.exports, longs.byteLength, 9);
const [ARMED, LEFT, LENGTH] = [0, 7, 8];
const record = Buffer.from(shared.exports, longs.byteLength + ints.byteLength);
const maps = fs.readFileSync('/proc/self/maps', 'utf8');
const [, ...code] = /^(\w+)-(\w+) r-x.*\/tarvek\.node$/m.exec(maps);
longs.set(code.map((address) => BigInt(`0x${address}`)));

// Writes a hook point or a stage into the record, between the system calls.
function note(...words) {
  ints[LENGTH] += record.write(`${words.join('\t')}\t0\n`, ints[LENGTH]);
}

const OPEN = {
  ...{ WRONLY: 1, RDWR: 2, CREAT: 0o100, EXCL: 0o200, TRUNC: 0o1000, APPEND: 0o2000 },
  ...{ NONBLOCK: 0o4000, DIRECTORY: 0o200000, NOFOLLOW: 0o400000, CLOEXEC: 0o2000000 },
};
const AT = { NOFOLLOW: 0x100, REMOVEDIR: 0x200, FOLLOW: 0x400 };
// The position of the flags among the arguments of a call.
const FLAGS = { open: 1, openat: 2, fstatat: 2, unlinkat: 2, linkat: 4 };
function flagsIn(number, known) {
  const words = Object.keys(known).filter((word) => number & known[word]);
  const rest = words.reduce((left, word) => left - known[word], Number(number));
  return [...words, ...(rest ? [`0${rest.toString(8)}`] : [])].join('|') || '0';
}

// The line for a call in test/calls/. Undefined for calls that the listings leave out: those of
// openRoot above the root, because the number of directories there varies, and each readdir that
// returns "." or "..", because their position depends on the file system.
const isAbove = (at) => at.startsWith('/') && place.base.startsWith(at);
function lineOf(name, args, error) {
  const [first, second, third] = args;
  if (first === 'root-ancestor-open' && third < place.depth) return undefined;
  if (name === 'readdir' && second) return undefined;
  const isOnSlash = first === '/' && !name.endsWith('at') && name !== 'fstat';
  if (isAbove(first) && second !== 'root' && !isOnSlash) return undefined;
  const words = args.map((arg, i) => {
    if (i === FLAGS[name]) return flagsIn(arg, name.startsWith('open') ? OPEN : AT);
    const isWithin = arg === place.base || arg.startsWith(place.root);
    return isWithin ? path.relative(place.root, arg) || '.' : arg || '""';
  });
  if (first === 'root-ancestor-open') words[2] -= place.depth;
  return [name, ...words, ...(error ? ['=', error] : [])].join(' ');
}

// The recorded system calls, hooks and stages, in order. `nth` numbers the system calls only.
function callsIn(text) {
  let count = 0;
  const plain = text.replace(/\.tarvek-\d+-\d+-[0-9a-f]{32}/g, '.tarvek-*');
  // Older C libraries have __fxstat in place of fstat.
  return plain
    .replaceAll('__fx', 'f')
    .split('\n')
    .slice(0, -1)
    .map((line) => {
      const [name, ...args] = line.split('\t');
      const code = Number(args.pop());
      const error = code && getSystemErrorName(-code);
      const nth = name === 'hook' || name === 'stage' ? undefined : ++count;
      return { nth, name, args, error, text: lineOf(name, args, error) };
    });
}

// Makes the scenario's call. The plan makes `count` system calls go wrong, from number `first` on.
// By its `action` they fail with `error` (all but the first with `then`), move fewer bytes, return 0
// with errno set to `error`, or report another value in `field`. Passes the outcome, the calls, and
// the trees before and after to `verify`.
function run(scenario, plan, verify) {
  const { action = 'nothing', first = 0, count = 1, error, then = error, field } = plan;
  sandbox(scenario.before, (ctx) => {
    const before = treeOf(ctx.root);
    ctx.stage = (stage) => note('stage', stage);
    tarvek.setTestHook(({ point, segment, index }) => note('hook', point, segment, index));
    const [operation, args] = prepare(ctx, scenario.call);
    const errors = [error, then].map((one) => os.constants.errno[one] ?? 0);
    longs.set(FIELDS[field] ?? [], 2);
    ints.set([1, ACTIONS.indexOf(action), first, count, ...errors, 0, -1, 0]);
    const outcome = thrownBy(() => tarvek[operation](...args));
    ints[ARMED] = 0;
    tarvek.setTestHook();
    // If fdopendir fails, the module leaves the duplicate open, as its interface requires.
    if (ints[LEFT] >= 0) fs.closeSync(ints[LEFT]);
    const calls = callsIn(record.toString('utf8', 0, ints[LENGTH]));
    try {
      verify({ ctx, outcome, calls, before, after: treeOf(ctx.root) });
    } catch (thrown) {
      const { text } = calls.find(({ nth }) => nth === first) ?? {};
      const what = [action, field, error, count > 1 && 'from there on'].filter(Boolean).join(' ');
      if (first > 0) thrown.message = `call ${first}, ${text}: ${what}: ${thrown.message}`;
      throw thrown;
    }
  });
}

// Runs the scenario without a fault. Returns the result, the calls and the trees.
function rehearse(scenario) {
  let normal;
  run(scenario, {}, (seen) => {
    normal = { ...seen, result: expectOutcome('-', seen.outcome) };
    scenario.check(normal.result, seen.ctx);
  });
  return normal;
}

module.exports = { run, rehearse, FIELDS: Object.keys(FIELDS), FAR };
