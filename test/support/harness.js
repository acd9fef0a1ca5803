'use strict';

// Roots to test on, calls in words, and their outcomes.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const { BYTES, build, treeOf } = require('./layouts.js');
const tarvek = require('./tarvek.js');

// A list of the cells of each line. Two or more spaces are between cells.
const cellsOf = (text) => Array.from(text.trim().split('\n'), (line) => line.trim().split(/ {2,}/));

// The failures of the module. Every table names them by the first word.
const FAILURES = cellsOf(`
  outside            PATH_OUT_OF_ROOT     Path validation refused outside the permitted root
  missing            NOT_FOUND            Requested repository-local record is absent
  storage            FILESYSTEM_FAILURE   Repository-local storage operation failed
  closed             HANDLE_CLOSED        Directory handle is closed
  candidate          CANDIDATE_CHANGED    Verified release candidate changed before publication
  exists             OPTIMISTIC_CONFLICT  Repository-local record already exists
  removal            OPTIMISTIC_CONFLICT  Repository-local record changed before removal
  append             OPTIMISTIC_CONFLICT  Repository-local record changed before append
  entry              OPTIMISTIC_CONFLICT  Repository-local integration entry already exists
  link               PATH_OUT_OF_ROOT     symbolic link in snapshot source
  hardLink           PATH_OUT_OF_ROOT     hard-linked snapshot source is forbidden
  special            PATH_OUT_OF_ROOT     non-regular snapshot source
  replacedFile       PATH_OUT_OF_ROOT     snapshot source identity changed while opening
  duplicate          PATH_OUT_OF_ROOT     duplicate snapshot source identity
  changed            PATH_OUT_OF_ROOT     snapshot source changed during copy
  replacedDirectory  PATH_OUT_OF_ROOT     snapshot directory identity changed while opening
  changedDirectory   PATH_OUT_OF_ROOT     snapshot directory changed during copy`);
const failures = new Map(FAILURES.map(([name, code, message]) => [name, { code, message }]));
const codes = FAILURES.map(([, code]) => code);

// Returns { result } if the body returns, and { thrown } if it throws.
function thrownBy(body) {
  try {
    return { result: body() };
  } catch (thrown) {
    return { thrown };
  }
}

// One directory for the whole process holds the root and what is outside it. It is in memory unless
// TMPDIR is set, because a disk makes the tests slower.
const { thrown: refusal } = thrownBy(() => fs.accessSync('/dev/shm', fs.constants.W_OK));
const parent = refusal || process.env.TMPDIR ? os.tmpdir() : '/dev/shm';
const base = fs.mkdtempSync(path.join(fs.realpathSync(parent), 'tarvek-'));
// The directories created in it would inherit a set-group-ID bit.
fs.chmodSync(base, 0o700);
const remove = (at) => fs.rmSync(at, { recursive: true });
process.on('exit', () => remove(base));
const root = path.join(base, 'root');
// `depth` is the number of directories from "/" to the root. openRoot walks through them too.
const depth = root.split('/').length - 1;
const place = { base, root, depth, at: (...names) => path.join(root, ...names) };
const UMASK = 0o022;
process.umask(UMASK);

// Descriptors to ignore: already closed, read by libc in other threads when it frees memory, the
// report of a sanitizer, and one that Node reserves with its first socket.
const IGNORED = / (undefined|\/proc\/sys\/vm\/overcommit_memory|.*\/report\.\d+|\/dev\/null)$/;

// The numbers of the open descriptors, as texts.
function openNumbers() {
  // Reading the directory takes the lowest free number for itself.
  const free = fs.openSync('/proc/self/fd');
  fs.closeSync(free);
  return fs.readdirSync('/proc/self/fd').filter((fd) => Number(fd) !== free);
}

// The open descriptors of this process except these numbers, each as its number and the path of its
// file. Looking up the paths takes most of the time of a short test.
function descriptors(except = []) {
  const numbers = openNumbers().filter((fd) => !except.includes(fd));
  const entries = numbers.map((fd) => {
    const { result } = thrownBy(() => fs.readlinkSync(`/proc/self/fd/${fd}`));
    return `${fd} ${result}`;
  });
  return entries.filter((entry) => !IGNORED.test(entry));
}

// A root directory with this layout, open as `handle`. open(at, flags) opens a descriptor to borrow.
function enterSandbox(layout) {
  const ctx = { ...place, openBefore: openNumbers(), borrowed: [] };
  ctx.open = (at, flags) => {
    const fd = fs.openSync(at, flags);
    ctx.borrowed.push(fd);
    return fd;
  };
  build(root, layout);
  ctx.handle = tarvek.openRoot(root);
  return ctx;
}

// Removes the hook, the borrowed descriptors and everything on disk.
function leaveSandbox({ handle, borrowed }) {
  tarvek.setTestHook();
  for (const fd of borrowed) fs.closeSync(fd);
  tarvek.close(handle);
  for (const name of fs.readdirSync(base)) remove(path.join(base, name));
}

// Runs `body` on a root directory with this layout. Fails if a descriptor stays open, or if the
// umask is another one.
function sandbox(layout, body) {
  const ctx = enterSandbox(layout);
  try {
    body(ctx);
  } finally {
    leaveSandbox(ctx);
  }
  assert.deepEqual(descriptors(ctx.openBefore), [], 'a descriptor is left open');
  assert.equal(process.umask(UMASK), UMASK, 'the umask');
}

// A call in words is the operation and its arguments: a segment array as names joined by slashes
// (capture takes any number), a number, OLD, NEW or MANY for bytes, "@" before a path below the root to
// make it absolute, "=" before a plain string, "fd:" before a file to open (for reading, or with the
// flags after a second colon), and "stage" for a callback.
function argument(ctx, word) {
  if (word in BYTES) return BYTES[word];
  if (word === 'NaN' || !Number.isNaN(Number(word))) return Number(word);
  if (word === 'stage') return (...args) => ctx.stage?.(...args);
  if (word.startsWith('=')) return word.slice(1);
  if (word.startsWith('@')) return ctx.at(word.slice(1));
  if (!word.startsWith('fd:')) return word.split('/');
  const [, name, flags] = word.split(':');
  return ctx.open(ctx.at(name), /^\d+$/.test(flags) ? Number(flags) : flags);
}

const WITHOUT_HANDLE = ['open', 'openRoot', 'setTestHook'];

// Turns a call in words into [operation, arguments]. Opens the descriptor that the call borrows.
function prepare(ctx, words) {
  const [operation, ...rest] = words.split(' ');
  const args = rest.map((word) => argument(ctx, word));
  if (WITHOUT_HANDLE.includes(operation)) return [operation, args];
  if (operation === 'capture') return [operation, [ctx.handle, args]];
  return [operation, [ctx.handle, ...args]];
}

function withoutTemporary(image) {
  const entries = Object.entries(image).filter(([name]) => !/(^|\/)\.tarvek-/.test(name));
  return Object.fromEntries(entries);
}

// Makes a call, given in words or as [operation, arguments]. Calls `act` at every hook point and at
// every stage of a write. After a failure, the disk must be as the last event left it, without a
// temporary file.
function attempt(ctx, call, act = () => {}) {
  const [operation, args] = typeof call === 'string' ? prepare(ctx, call) : call;
  let image = treeOf(base);
  const handle = (event) => {
    try {
      return act(event);
    } finally {
      image = withoutTemporary(treeOf(base));
    }
  };
  ctx.stage = (point) => handle({ point });
  tarvek.setTestHook(handle);
  const outcome = thrownBy(() => tarvek[operation](...args));
  tarvek.setTestHook();
  if ('thrown' in outcome) assert.deepEqual(treeOf(base), image, 'the whole disk');
  return outcome;
}

// Asserts that a call ended in one of the failures above or, for "-", in success. Returns its result.
function expectOutcome(expected, outcome) {
  const { thrown: error } = outcome;
  if (expected === '-') {
    if ('thrown' in outcome) throw error;
    return outcome.result;
  }
  const { code, message } = failures.get(expected);
  assert.ok('thrown' in outcome, `returned instead of failing with "${message}"`);
  const isError = error instanceof Error && Object.getPrototypeOf(error) === Error.prototype;
  assert.ok(isError, `threw ${String(error)} instead of an Error with "${message}"`);
  assert.deepEqual([error.code, error.message], [code, message], error.stack);
  assert.deepEqual(Object.keys(error), ['code'], 'the error has only its code');
  return undefined;
}

const expectCall = (expected, ...calling) => expectOutcome(expected, attempt(...calling));

// Asserts that the caller gets exactly what the callback of `callWith(callback)` throws.
function expectPassedOn(callWith) {
  for (const value of [new Error('by the callback'), 'a string', undefined]) {
    const thrower = () => {
      throw value;
    };
    const outcome = callWith(thrower);
    assert.ok('thrown' in outcome, 'the caller got no exception');
    assert.equal(outcome.thrown, value, 'what the caller got');
  }
}

// What treeOf returns for a directory with this layout.
function imageOf(layout) {
  const at = path.join(base, 'expected');
  build(at, layout);
  const image = treeOf(at);
  remove(at);
  return image;
}

// Asserts that the disk beneath the root is this layout.
function assertTree(layout) {
  assert.deepEqual(treeOf(root), imageOf(layout), 'the whole disk beneath the root');
}

function identityOf(at) {
  const { dev, ino } = fs.statSync(at, { bigint: true });
  return { dev, ino };
}

// Asserts that a handle stands for this directory. Closes it.
function checkOpened(handle, ctx, name) {
  assert.deepEqual(tarvek.rootIdentity(handle), identityOf(ctx.at(name)));
  tarvek.close(handle);
}

// One test for each row [name, ...rest], which calls run(...rest). The rows are no subtests, because
// --test-name-pattern does not find those in versions of Node before 22.
function table(title, rows, run) {
  assert.notEqual(rows.length, 0, `${title}: the table is empty`);
  for (const [name, ...rest] of rows) test(`${title}: ${name}`, () => run(...rest));
}

// The command that runs Node. Under an emulator it has several words.
const NODE = process.env.TARVEK_TEST_NODE?.split('\n') ?? [process.execPath];

// Runs a program of test/programs/ in a process of its own. It must end by itself, without an error.
function expectProgram(name, ...args) {
  const [command, ...rest] = [...NODE, path.join(__dirname, '../programs', name)];
  const words = [...rest, ...args.map((value) => JSON.stringify(value))];
  const options = { encoding: 'utf8', timeout: 60_000, killSignal: 'SIGKILL' };
  const ended = spawnSync(command, words, options);
  assert.equal(ended.signal, null, `${name} did not end by itself`);
  assert.equal(ended.status, 0, ended.stderr);
  return ended.stdout;
}

module.exports = {
  cellsOf,
  failures,
  codes,
  thrownBy,
  place,
  openNumbers,
  descriptors,
  enterSandbox,
  leaveSandbox,
  sandbox,
  prepare,
  withoutTemporary,
  attempt,
  expectOutcome,
  expectCall,
  expectPassedOn,
  imageOf,
  assertTree,
  identityOf,
  checkOpened,
  table,
  expectProgram,
};
