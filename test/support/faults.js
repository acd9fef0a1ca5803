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
// Lazy binding: child processes that are not Node load the library too, and lack Node-API.
const OPTIONS = '-std=c11 -O1 -Wall -Wextra -Werror -shared -fPIC -Wl,-z,lazy -x c'.split(' ');

// Compiles the library for each test file, which takes 0.1 s, with the compiler that built the
// module: it compiles C as well.
function startOver() {
  const cache = fs.readFileSync(CACHE, 'utf8');
  const [, compiler] = /^CMAKE_CXX_COMPILER:\w+=(.+)/m.exec(cache);
  // LD_PRELOAD splits its value at blanks and colons.
  const folder = /[ :]/.test(place.base) ? fs.mkdtempSync('/tmp/tarvek-') : place.base;
  const preloaded = path.join(folder, 'faults.so');
  const source = path.join(__dirname, '../interpose/faults.c');
  execFileSync(compiler, [...OPTIONS, source, '-ldl', '-o', preloaded]);
  const env = {
    ...process.env,
    TARVEK_TEST_PRELOADED: preloaded,
    // Before a sanitizer's runtime, or that would make the calls instead of the module.
    LD_PRELOAD: `${preloaded}:${LD_PRELOAD}`,
    ASAN_OPTIONS: `${ASAN_OPTIONS}:verify_asan_link_order=0`,
  };
  const args = [...process.execArgv, ...process.argv.slice(1)];
  const run = spawnSync(process.execPath, args, { stdio: 'inherit', env });
  fs.rmSync(folder, { recursive: true });
  if (run.signal) console.error(`tarvek: the process under test ended by ${run.signal}`);
  process.exit(run.status ?? 1);
}
if (!TARVEK_TEST_PRELOADED) startOver();

const ACTIONS = ['nothing', 'fail', 'short', 'zero', 'alter'];
// How each field of struct stat is altered: its offset, a mask for what is kept, and what is added.
// The mode is the lower half of the 64 bits at its offset.
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
const long = new BigInt64Array(shared.exports, 0, 5);
const state = new Int32Array(shared.exports, long.byteLength, 9);
const [LEFT, LENGTH] = [7, 8];
const record = Buffer.from(shared.exports, long.byteLength + state.byteLength);
const maps = fs.readFileSync('/proc/self/maps', 'utf8');
const [, ...code] = /^(\w+)-(\w+) r-x.*\/tarvek\.node$/m.exec(maps);
long.set(code.map((at) => BigInt(`0x${at}`)));

// Puts a hook point or a stage into the record, between the calls.
function note(...words) {
  state[LENGTH] += record.write(`${words.join('\t')}\t0\n`, state[LENGTH]);
}

const OPEN = {
  ...{ WRONLY: 1, RDWR: 2, CREAT: 0o100, EXCL: 0o200, TRUNC: 0o1000, APPEND: 0o2000 },
  ...{ NONBLOCK: 0o4000, DIRECTORY: 0o200000, NOFOLLOW: 0o400000, CLOEXEC: 0o2000000 },
};
const AT = { NOFOLLOW: 0x100, REMOVEDIR: 0x200, FOLLOW: 0x400 };
// Which argument of a call is its flags.
const FLAGS = { open: 1, openat: 2, fstatat: 2, unlinkat: 2, linkat: 4 };
function flagsIn(number, known) {
  const words = Object.keys(known).filter((word) => number & known[word]);
  const rest = words.reduce((left, word) => left - known[word], Number(number));
  return [...words, ...(rest ? [`0${rest.toString(8)}`] : [])].join('|') || '0';
}

// The line of a listing in test/calls/. Undefined for calls that are left out: what openRoot does
// above the root, since the number of directories there varies, and each readdir that yields "." or
// "..", since file systems yield them at different places.
const isAbove = (at) => at.startsWith('/') && place.base.startsWith(at);
function show(name, args, error) {
  const [at, second, third] = args;
  if (at === 'root-ancestor-open' && third < place.depth) return undefined;
  if (name === 'readdir' && second) return undefined;
  if (isAbove(at) && second !== 'root' && (at !== '/' || name.endsWith('at') || name === 'fstat'))
    return undefined;
  const words = args.map((arg, i) => {
    if (i === FLAGS[name]) return flagsIn(arg, name.startsWith('open') ? OPEN : AT);
    const isWithin = arg === place.base || arg.startsWith(place.root);
    return isWithin ? path.relative(place.root, arg) || '.' : arg || '""';
  });
  if (at === 'root-ancestor-open') words[2] -= place.depth;
  return [name, ...words, ...(error ? ['=', error] : [])].join(' ');
}

// The recorded calls, hooks and stages, in order. `nth` counts the calls alone.
function callsIn(text) {
  let made = 0;
  const plain = text.replace(/\.tarvek-\d+-\d+-[0-9a-f]{32}/g, '.tarvek-*');
  // Older C libraries have __fxstat in the place of fstat.
  return plain
    .replaceAll('__fx', 'f')
    .split('\n')
    .slice(0, -1)
    .map((line) => {
      const [name, ...args] = line.split('\t');
      const code = Number(args.pop());
      const error = code && getSystemErrorName(-code);
      const nth = name === 'hook' || name === 'stage' ? undefined : ++made;
      return { nth, name, args, error, text: show(name, args, error) };
    });
}

// Makes the scenario's call. By the plan, `count` system calls from the `first` on go wrong: they
// fail with `error` (after the first one with `then`), move fewer bytes, return 0 with errno set to
// `error`, or report another value in `field`. Passes the outcome, the calls, and the trees before
// and after to `verify`.
function run(scenario, plan, verify) {
  const { action = 'nothing', first = 0, count = 1, error, then = error, field } = plan;
  sandbox(scenario.before, (ctx) => {
    const before = treeOf(ctx.root);
    ctx.stage = (stage) => note('stage', stage);
    tarvek.setTestHook(({ point, segment, index }) => note('hook', point, segment, index));
    const [operation, args] = prepare(ctx, scenario.call);
    const errors = [error, then].map((one) => os.constants.errno[one] ?? 0);
    long.set(FIELDS[field] ?? [], 2);
    state.set([1, ACTIONS.indexOf(action), first, count, ...errors, 0, -1, 0]);
    const outcome = thrownBy(() => tarvek[operation](...args));
    state[0] = 0;
    tarvek.setTestHook();
    // When fdopendir fails, the module leaves the duplicate open, as its interface requires.
    if (state[LEFT] >= 0) fs.closeSync(state[LEFT]);
    const calls = callsIn(record.toString('utf8', 0, state[LENGTH]));
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

// The result, the calls and the trees when nothing goes wrong.
function rehearse(scenario) {
  let whole;
  run(scenario, {}, (seen) => {
    whole = { ...seen, result: expectOutcome('-', seen.outcome) };
    scenario.check(whole.result, seen.ctx);
  });
  return whole;
}

module.exports = { run, rehearse, FIELDS: Object.keys(FIELDS), FAR };
