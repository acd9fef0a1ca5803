'use strict';

// Calls the module with test/interpose/faults.c between it and libc. A test file that requires this
// one restarts in a child process that preloads the library. The parent only passes on the exit
// status.

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { getSystemErrorName } = require('node:util');
const { descriptors, openNumbers, place, prepare, sandbox, thrownBy } = require('./harness.js');
const { treeOf } = require('./layouts.js');
const tarvek = require('./tarvek.js');

const { TARVEK_TEST_PRELOADED, LD_PRELOAD = '', ASAN_OPTIONS = '' } = process.env;

const CACHE = path.join(__dirname, '../../build/Release/CMakeCache.txt');
const SOURCE = path.join(__dirname, '../interpose/faults.c');
// Lazy binding: child processes other than Node load the library too, and have no Node-API.
const OPTIONS = '-shared -fPIC -std=c11 -O1 -Wall -Wextra -Werror -Wl,-z,lazy -ldl'.split(' ');

// Compiles the library, with the compiler that built the module, and runs the test file again with it.
function restartPreloaded() {
  // LD_PRELOAD splits its value at spaces and colons.
  const directory = /[ :]/.test(place.base) ? fs.mkdtempSync('/tmp/tarvek-') : place.base;
  const preloaded = path.join(directory, 'faults.so');
  const [, compiler] = /^CMAKE_CXX_COMPILER:\w+=(.+)/m.exec(fs.readFileSync(CACHE, 'utf8'));
  execFileSync(compiler, ['-x', 'c', SOURCE, ...OPTIONS, '-o', preloaded]);
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

// The two texts of faults.c, each of which ends with a zero.
const shared = { exports: {} };
process.dlopen(shared, TARVEK_TEST_PRELOADED);
const PLAN_SIZE = 64;
const planText = Buffer.from(shared.exports, 0, PLAN_SIZE);
const record = Buffer.from(shared.exports, PLAN_SIZE);

function setPlan(words) {
  planText.write(`${words.join(' ')}\0`);
}

// Writes a hook point or a stage into the record, between the system calls.
function note(...words) {
  record.write(`${words.join('\t')}\t0\n\0`, record.indexOf(0));
}

// Whether the listings leave a call out: what openRoot does above the root, because the number of
// directories there varies, and a readdir that returns "." or "..", because their position does. The
// record says so after its path. Kept are the first and the last calls of openRoot, on "/", and those
// that lead from above to the root.
function isLeftOut(name, [first, second, third]) {
  if (first === 'root-ancestor-open') return Number(third) < place.depth - 1;
  if (name === 'readdir') return second !== undefined;
  const isAbove = first.startsWith('/') && place.base.startsWith(first);
  const isOnSlash = first === '/' && ['open', 'dup', 'close'].includes(name);
  return isAbove && second !== 'root' && !isOnSlash;
}

// The line for a call in a listing.
function lineOf(name, args, error) {
  const isRelative = (arg) => arg === place.base || arg.startsWith(place.root);
  const words = args.map((arg) => (isRelative(arg) ? path.relative(place.root, arg) || '.' : arg));
  if (words[0] === 'root-ancestor-open') words[2] = String(Number(words[2]) - place.depth);
  if (error) words.push('=', error);
  return [name, ...words].map((word) => (word === '' ? '""' : word)).join(' ');
}

// The recorded system calls, hooks and stages, in order. `nth` numbers the system calls only. `text`
// is undefined for those that the listings leave out.
function recordedCalls() {
  const text = record
    .toString('utf8', 0, record.indexOf(0))
    .replace(/\.tarvek-\d+-\d+-[0-9a-f]{32}/g, '.tarvek-*')
    // Older C libraries have __fxstat in place of fstat.
    .replaceAll('__fx', 'f');
  let count = 0;
  const lines = text.split('\n').slice(0, -1);
  return lines.map((line) => {
    const [name, ...args] = line.split('\t');
    const code = Number(args.pop());
    const error = code > 0 ? getSystemErrorName(-code) : undefined;
    const isCall = name !== 'hook' && name !== 'stage';
    if (isCall) count += 1;
    return {
      nth: isCall ? count : undefined,
      name,
      error,
      text: isLeftOut(name, args) ? undefined : lineOf(name, args, error),
    };
  });
}

// If fdopendir failed, the module has left the duplicate open, as its interface requires.
function closeLeftDuplicate(openBefore) {
  const left = descriptors(openBefore);
  assert.equal(left.length, 1, 'the duplicate is left open');
  fs.closeSync(parseInt(left[0], 10));
}

// The plan in which nothing goes wrong.
const NOTHING = { first: 0, action: 'nothing' };

// Makes the scenario's call. The plan makes `count` system calls go wrong, from number `first`, which
// is a `name`, on. By its `action` they fail with `error` (all but the first with `then`), move fewer
// bytes ("short", or "cut" if the later ones fail with `then`), return 0 with errno set to `error`
// ("zero"), or report another value in `field` ("alter"). Passes the outcome and the tree to `verify`.
// recordedCalls() returns the calls.
function run(scenario, plan, verify) {
  const { name, action, first, count = 1, error, then = error, field = '' } = plan;
  sandbox(scenario.before, (ctx) => {
    const errors = [error, then].map((one) => os.constants.errno[one] ?? 0);
    ctx.stage = (stage) => note('stage', stage);
    tarvek.setTestHook(({ point, segment, index }) => note('hook', point, segment, index));
    const [operation, args] = prepare(ctx, scenario.call);
    const openBefore = name === 'fdopendir' ? openNumbers() : [];
    record[0] = 0;
    setPlan([action, first, count, ...errors, field]);
    const outcome = thrownBy(() => tarvek[operation](...args));
    setPlan([]);
    tarvek.setTestHook();
    if (name === 'fdopendir') closeLeftDuplicate(openBefore);
    verify({ ctx, outcome, after: treeOf(ctx.root) });
  });
}

module.exports = { NOTHING, run, recordedCalls };
