'use strict';

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('./tarvek.js');

// The lines of a table, each split at two or more spaces.
const lines = (text) => Array.from(text.trim().split('\n'), (line) => line.trim().split(/ {2,}/));

const FAILURES = lines(`
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
const failures = FAILURES.map(([name]) => name);
const codes = FAILURES.map(([, code]) => code);

// A layout describes what is on disk. A string or Buffer is a file, an object is a directory, a
// function creates any other entry at the path `at`, and undefined is a missing entry. The module
// itself gives new entries other modes, those of `fresh`.
const symlink = (text) => (at) => fs.symlinkSync(text, at);
const hardlink = (sibling) => (at) => fs.linkSync(path.join(path.dirname(at), sibling), at);
const fifo = () => (at) => execFileSync('mkfifo', [at]);
const socket = () => (at) => {
  // Closing the server removes the name that it was bound to.
  const server = net.createServer().listen(`${at}~`);
  try {
    fs.renameSync(`${at}~`, at);
  } finally {
    server.close();
  }
};
const withMode = (mode, content) => (at) => {
  build(at, content);
  fs.chmodSync(at, mode);
};
const isDirectory = (content) => typeof content === 'object' && !Buffer.isBuffer(content);
// With the mode of an entry that the module created.
const fresh = (content) => withMode(isDirectory(content) ? 0o700 : 0o600, content);

function build(at, content) {
  if (content === undefined) return;
  if (typeof content === 'function') return content(at);
  if (!isDirectory(content)) return fs.writeFileSync(at, content);
  fs.mkdirSync(at);
  for (const [name, inner] of Object.entries(content)) build(path.join(at, name), inner);
}

// The image of a tree: for each path beneath `at`, one string with its mode, links and content.
function treeOf(at, prefix = '', image = {}) {
  for (const name of fs.readdirSync(at).sort()) {
    const inner = path.join(at, name);
    const stat = fs.lstatSync(inner);
    const type = stat.mode.toString(8);
    const text = stat.isSymbolicLink() ? fs.readlinkSync(inner) : '';
    const content = stat.isFile() ? fs.readFileSync(inner, 'latin1') : text;
    image[prefix + name] = stat.isDirectory() ? type : `${type} ${stat.nlink} ${content}`;
    if (stat.isDirectory()) treeOf(inner, `${prefix}${name}/`, image);
  }
  return image;
}

function assertTree(layout) {
  const expected = path.join(base, 'expected');
  build(expected, layout);
  const images = [treeOf(root), treeOf(expected)];
  fs.rmSync(expected, { recursive: true });
  assert.deepEqual(...images, 'the whole disk beneath the root');
}

// Descriptors to ignore: already closed, read by libc in other threads when it frees memory, the
// report of a sanitizer, and one that Node reserves with its first socket.
const IGNORED = / (undefined|\/proc\/sys\/vm\/overcommit_memory|.*\/report\.\d+|\/dev\/null)$/;
function descriptors() {
  const targetOf = (fd) => thrownBy(() => fs.readlinkSync(`/proc/self/fd/${fd}`)).result;
  const entries = fs.readdirSync('/proc/self/fd').map((fd) => `${fd} ${targetOf(fd)}`);
  return entries.filter((entry) => !IGNORED.test(entry));
}

// A call in words is the operation and its arguments: a segment array as names joined by slashes
// (capture takes any number), a number, OLD or NEW for bytes, "@" before a path below the root to
// make it absolute, "=" before a plain string, "fd:" before a file to open (for reading, or with the
// flags after a second colon), and "stage" for a callback.
const OLD = 'the bytes of before';
const BYTES = { OLD: Buffer.from(OLD), NEW: Buffer.from('the new bytes') };

function argument(ctx, word) {
  if (word in BYTES) return BYTES[word];
  if (word === 'NaN' || !Number.isNaN(Number(word))) return Number(word);
  if (word === 'stage') return (...args) => ctx.stage?.(...args);
  if (word.startsWith('=')) return word.slice(1);
  if (word.startsWith('@')) return ctx.at(word.slice(1));
  if (!word.startsWith('fd:')) return word.split('/');
  const [, name, flags] = word.split(':');
  return ctx.open(ctx.at(name), Number(flags) || flags);
}

// Turns a call in words into [operation, arguments]. Opens the descriptor that the call borrows.
function prepare(ctx, words) {
  const [operation, ...rest] = words.split(' ');
  const args = rest.map((word) => argument(ctx, word));
  if (/^open(Root)?$/.test(operation)) return [operation, args];
  return [operation, [ctx.handle, ...(operation === 'capture' ? [args] : args)]];
}

// One directory for the whole process holds the root and what is outside it. It is in memory unless
// TMPDIR is set, because a disk makes the tests slower.
const isWritable = (at) => 'result' in thrownBy(() => fs.accessSync(at, fs.constants.W_OK));
const parent = isWritable('/dev/shm') && !process.env.TMPDIR ? '/dev/shm' : os.tmpdir();
const base = fs.mkdtempSync(path.join(fs.realpathSync(parent), 'tarvek-'));
// The directories created in it would inherit a set-group-ID bit.
fs.chmodSync(base, 0o700);
process.on('exit', () => fs.rmSync(base, { recursive: true, force: true }));
const root = path.join(base, 'root');
process.umask(0o022);
// `depth` is the number of directories above the root. openRoot walks through them too.
const depth = root.split('/').length - 2;
const place = { base, root, depth, at: (...names) => path.join(root, ...names) };

function thrownBy(body) {
  try {
    return { result: body() };
  } catch (thrown) {
    return { thrown };
  }
}

// Runs `body` on a root directory with this layout. Always removes the hook, the borrowed
// descriptors and everything on disk afterwards. Fails if a descriptor stays open.
function sandbox(layout, body) {
  const before = descriptors();
  const borrowed = [];
  const open = (at, flags) => borrowed[borrowed.push(fs.openSync(at, flags)) - 1];
  const ctx = { ...place, open };
  const outcome = thrownBy(() => {
    build(root, layout);
    ctx.handle = tarvek.openRoot(root);
    body(ctx);
  });
  tarvek.setTestHook();
  for (const fd of borrowed) fs.closeSync(fd);
  if (ctx.handle) tarvek.close(ctx.handle);
  for (const name of fs.readdirSync(base)) fs.rmSync(path.join(base, name), { recursive: true });
  if ('thrown' in outcome) throw outcome.thrown;
  assert.deepEqual(descriptors(), before, 'the same descriptors are open as before');
}

// Makes a call, given in words or as [operation, arguments]. Calls `act` at every hook point and at
// every stage of a write. After a failure, the disk must be as the last event left it, without a
// temporary file and with the entries `left`, which the call leaves behind on purpose.
function attempt(ctx, call, act = () => {}, left = {}) {
  const [operation, args] = typeof call === 'string' ? prepare(ctx, call) : call;
  let image = treeOf(base);
  const handle = (event) => {
    try {
      return act(event);
    } finally {
      const entries = Object.entries(treeOf(base));
      image = Object.fromEntries(entries.filter(([name]) => !name.includes('/.tarvek-')));
    }
  };
  ctx.stage = (point) => handle({ point });
  tarvek.setTestHook(handle);
  const outcome = thrownBy(() => tarvek[operation](...args));
  tarvek.setTestHook();
  if ('thrown' in outcome) assert.deepEqual(treeOf(base), { ...image, ...left }, 'the whole disk');
  return outcome;
}

// Asserts that a call ended in one of the failures above or, for "-", in success. Returns its result.
function expectOutcome(expected, { thrown: error, ...returned }) {
  if (expected === '-') {
    if (!('result' in returned)) throw error;
    return returned.result;
  }
  const [, code, message] = FAILURES[failures.indexOf(expected)];
  assert.deepEqual(returned, {}, `returned instead of failing with "${message}"`);
  const isError = error instanceof Error && Object.getPrototypeOf(error) === Error.prototype;
  assert.ok(isError, `threw ${String(error)} instead of an Error with "${message}"`);
  assert.deepEqual([error.code, error.message], [code, message], error.stack);
  assert.deepEqual(Object.keys(error), ['code'], 'the error has only its code');
}
const expectCall = (expected, ...calling) => expectOutcome(expected, attempt(...calling));

// Asserts that the caller gets exactly what the callback of `callWith(callback)` throws.
function expectPassedOn(callWith) {
  for (const value of [new Error('by the callback'), 'a string', undefined]) {
    const thrower = () => {
      throw value;
    };
    const outcome = callWith(thrower);
    assert.ok('thrown' in outcome && outcome.thrown === value, `the caller got ${outcome.thrown}`);
  }
}

// An error's message, and the line of the test file where it was thrown.
function describe(error) {
  const [where] = /\n.*\.test\.js:.*/.exec(error?.stack) ?? [''];
  return `${error?.message ?? error}${where}`;
}

// One test for many rows, each [name, body]. Its message lists every row that failed.
function table(title, rows) {
  test(title, (t) => {
    assert.notEqual(rows.length, 0, 'the table is empty');
    const failed = rows.flatMap(([name, body]) => {
      const outcome = thrownBy(body);
      return 'thrown' in outcome ? [`- ${name}: ${describe(outcome.thrown)}`] : [];
    });
    t.diagnostic(`${rows.length} cases`);
    assert.equal(failed.length, 0, `${failed.length} cases failed\n${failed.join('\n')}`);
  });
}

// The same for rows [name, layout, ...rest], each in a sandbox of its own: calls run(ctx, ...rest).
function each(title, rows, run) {
  const bodyOf = ([layout, ...rest]) => sandbox(layout, (ctx) => run(ctx, ...rest));
  const bodies = rows.map(([name, ...rest]) => [name, () => bodyOf(rest)]);
  table(title, bodies);
}

// The same for an object of bodies by name. All start from one layout.
function cases(title, layout, bodies) {
  const rows = Object.entries(bodies).map(([name, body]) => [name, layout, body]);
  each(title, rows, (ctx, body) => body(ctx));
}

module.exports = {
  ...{ OLD, BYTES, lines, failures, codes, symlink, hardlink, fifo, socket, withMode, fresh },
  ...{ build, treeOf, assertTree, place, descriptors, prepare, sandbox, thrownBy, attempt },
  ...{ expectOutcome, expectCall, expectPassedOn, table, each, cases },
};
