'use strict';

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('./tarvek.js');

// The lines of a table, split where two blanks or more stand.
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

// A layout is what is on disk: a string or Buffer is a file, an object a directory (the module
// itself gives neither of their modes), a function makes what is neither, and undefined is nothing.
const symlink = (text) => (at) => fs.symlinkSync(text, at);
const hardlink = (sibling) => (at) => fs.linkSync(path.join(path.dirname(at), sibling), at);
const fifo = () => (at) => execFileSync('mkfifo', [at]);
const socket = () => (at) => {
  // Closing the server takes away the name that it was bound to.
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
// What the module makes itself.
const fresh = (content) => withMode(isDirectory(content) ? 0o700 : 0o600, content);

function build(at, content) {
  if (content === undefined) return;
  if (typeof content === 'function') return content(at);
  if (!isDirectory(content)) return fs.writeFileSync(at, content);
  fs.mkdirSync(at);
  for (const [name, inner] of Object.entries(content)) build(path.join(at, name), inner);
}

// Everything beneath `at`, comparable whole: by path, the type and mode, links and content.
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

// Descriptors that come and go: already closed, read by libc in other threads when it frees memory,
// the report of a sanitizer, and one that Node reserves with its first socket.
const PASSING = / (undefined|\/proc\/sys\/vm\/overcommit_memory|.*\/report\.\d+|\/dev\/null)$/;
function descriptors() {
  const targetOf = (fd) => thrownBy(() => fs.readlinkSync(`/proc/self/fd/${fd}`)).result;
  const entries = fs.readdirSync('/proc/self/fd').map((fd) => `${fd} ${targetOf(fd)}`);
  return entries.filter((entry) => !PASSING.test(entry));
}

// A call in words: the operation, then segment arrays joined by slashes (capture takes any number),
// numbers, bytes by name, "@" before an absolute path, "=" before a mere string, "fd:" before a
// file to open (for reading, or with flags behind a colon), and "stage" for a callback.
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

// What the words call, as operation and arguments; opens what the call borrows.
function prepare(ctx, words) {
  const [operation, ...rest] = words.split(' ');
  const args = rest.map((word) => argument(ctx, word));
  if (/^open(Root)?$/.test(operation)) return [operation, args];
  return [operation, [ctx.handle, ...(operation === 'capture' ? [args] : args)]];
}

// One directory for the whole process, for the root and for what is outside it. It is in memory
// unless TMPDIR is set: a disk costs two thirds of the time.
const isWritable = (at) => 'result' in thrownBy(() => fs.accessSync(at, fs.constants.W_OK));
const folder = isWritable('/dev/shm') && !process.env.TMPDIR ? '/dev/shm' : os.tmpdir();
const base = fs.mkdtempSync(path.join(fs.realpathSync(folder), 'tarvek-'));
// A set-group-ID bit would go down into all that is made in it.
fs.chmodSync(base, 0o700);
process.on('exit', () => fs.rmSync(base, { recursive: true, force: true }));
const root = path.join(base, 'root');
process.umask(0o022);
// `depth`: the number of directories above the root, which openRoot walks as well.
const depth = root.split('/').length - 2;
const place = { base, root, depth, at: (...names) => path.join(root, ...names) };

function thrownBy(body) {
  try {
    return { result: body() };
  } catch (thrown) {
    return { thrown };
  }
}

// Runs `body` on a root directory with this layout. Fails when a descriptor stays open; the hook,
// what was borrowed and what is on disk are gone afterwards in any case.
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

// Makes a call, in words or as operation and arguments, and acts on every event of the hook, the
// stages of a write included. After a failure the disk must be as the last event left it, with what
// is `left` behind on purpose and without a temporary file.
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

// That a call ended in one of the failures above, or for "-" in success, which gives the result.
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
  assert.deepEqual(Object.keys(error), ['code'], 'nothing but the code is told');
}
const expectCall = (expected, ...calling) => expectOutcome(expected, attempt(...calling));

// That whatever a callback throws is what comes out of the call that is made with it.
function expectThrough(callWith) {
  for (const value of [new Error('by the callback'), 'a string', undefined]) {
    const thrower = () => {
      throw value;
    };
    const outcome = callWith(thrower);
    assert.ok('thrown' in outcome && outcome.thrown === value, `came out as ${outcome.thrown}`);
  }
}

// An error's message, and where in a test file it came up.
function told(error) {
  const [where] = /\n.*\.test\.js:.*/.exec(error?.stack) ?? [''];
  return `${error?.message ?? error}${where}`;
}

// One test of many rows, each [name, body]; every failing row is told.
function table(title, rows) {
  test(title, (t) => {
    assert.notEqual(rows.length, 0, 'the table is empty');
    const failed = rows.flatMap(([name, body]) => {
      const outcome = thrownBy(body);
      return 'thrown' in outcome ? [`- ${name}: ${told(outcome.thrown)}`] : [];
    });
    t.diagnostic(`${rows.length} cases`);
    assert.equal(failed.length, 0, `${failed.length} cases failed\n${failed.join('\n')}`);
  });
}

// The same with a sandbox for each row, which is [name, layout, and what else `run` is given].
function each(title, rows, run) {
  const bodyOf = ([layout, ...rest]) => sandbox(layout, (ctx) => run(ctx, ...rest));
  const bodies = rows.map(([name, ...rest]) => [name, () => bodyOf(rest)]);
  table(title, bodies);
}

// The same for bodies by name, on one layout.
function cases(title, layout, bodies) {
  const rows = Object.entries(bodies).map(([name, body]) => [name, layout, body]);
  each(title, rows, (ctx, body) => body(ctx));
}

module.exports = {
  ...{ OLD, BYTES, lines, failures, codes, symlink, hardlink, fifo, socket, withMode, fresh },
  ...{ build, treeOf, assertTree, place, descriptors, prepare, sandbox, thrownBy, attempt },
  ...{ expectOutcome, expectCall, expectThrough, table, each, cases },
};
