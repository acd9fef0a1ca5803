'use strict';

// Every call that an operation makes fails in turn, once and from then on, and the operation must
// end as it promises. TARVEK_TEST_FULL=1 tries what a file system may report, else an errno of a
// kind.

const faults = require('./support/faults.js');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const test = require('node:test');
const { BYTES, expectOutcome, failures, lines, place, table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const RARER = 'ENOSPC EDQUOT EACCES EPERM EMFILE ENOMEM ENOTDIR EROFS'.split(' ');
const ERRNOS = ['EIO', 'ENOENT', 'ELOOP', 'EEXIST', 'EINTR'];
const FULL = process.env.TARVEK_TEST_FULL === '1';
if (FULL) ERRNOS.push(...RARER);
const FOREVER = 1 << 30;
// Of every open: not through a link, and close-on-exec, which fs.constants lacks.
const SAFE_FLAGS = fs.constants.O_NOFOLLOW | 0o2000000;

// How many faults the shorter form has injected at least, and the calls that an operation makes, in
// one of these ways. A call that fails ends the operation in what its errno says, or in the failure
// behind a colon, or as the rule there has it. Words in capitals are spelt out further down; with a
// star, once for each directory on the way.
const STORIES = lines(`
  openRoot               1000  open STEP* open CHAIN fstat:outside dup
  openRelative           400   WALK CHAIN fstat:outside dup
  exists                 790   dup LOOK* CHAIN fstatat:answer | dup LOOK openat:answer
  read                   320   WALK CHAIN TAKE LOAD
  list                   460   WALK CHAIN STEP NAMES
  capture                1100  WALK CHAIN ENTER NAMES COPY ENTER NAMES COPY AGAIN AGAIN CHAIN
  snapshot               860  WALK CHAIN STEP NAMES SAFE LOAD SAFE NAMES SAFE LOAD
  write                  1882  MAKE CHAIN fstatat:absent openat write:lost fsync:lost CHAIN renameat fsync
  create                 652   MAKE CHAIN fstatat:absent openat:taken write fsync fsync
  append                 1120  MAKE CHAIN fstatat:absent openat:again AGAIN write fsync fsync
  ensureDirectory        790   MAKE CHAIN fstatat:absent mkdirat fsync | MAKE CHAIN fstatat:repeated
  remove                 1100  WALK CHAIN GONE fsync
  remove                 0     WALK CHAIN OPEN GONE OPEN GONE EMPTY EMPTY fsync
  remove                 0     WALK CHAIN OPEN OPEN GONE EMPTY GONE EMPTY fsync
  removeIfEquals         536   WALK CHAIN fstatat openat SAME fstatat:removal CHAIN unlinkat fsync
  move                   2020  WALK MAKE CHAIN CHAIN fstatat fstatat:absent renameat fsync fsync
  ensureRelativeSymlink  1664  LINK CHAIN symlinkat:linked fsync | LINK readlinkat:entry
  publishVerified        1604  WALK MAKE CHAIN CHAIN CHAIN CHAIN VERIFY PUBLISH fsync fsync
  exchangeForTest        10    syscall
  STEP                   -     openat fstat:outside fstatat:outside
  LOOK                   -     openat:answer fstat:outside fstatat:outside
  HAVE                   -     openat:absent fstat:outside fstatat:outside
  NEW                    -     openat:absent mkdirat:made openat fstat:outside fstatat:outside fsync
  WALK                   -     dup STEP*
  MAKE                   -     dup HAVE*
  CHAIN                  -     dup:outside PROVE*
  PROVE                  -     fstatat:outside openat:outside
  NAMES                  -     dup:stream fdopendir
  TAKE                   -     fstatat openat fstat
  LOAD                   -     read
  AGAIN                  -     fstat fstatat
  COPY                   -     TAKE LOAD AGAIN
  ENTER                  -     fstatat openat fstat:replacedDirectory
  SAFE                   -     fstatat openat fstat:outside
  OPEN                   -     fstatat openat NAMES
  EMPTY                  -     fsync unlinkat
  GONE                   -     fstatat unlinkat
  SAME                   -     fstat:removal pread:removal pread:removal fstat:removal
  LINK                   -     WALK CHAIN fstatat MAKE CHAIN fstatat:hidden
  VERIFY                 -     fcntl:candidate VIEW pread:candidate pread:candidate VIEW
  VIEW                   -     fstat:candidate fstatat:candidate
  PUBLISH                -     linkat:taken fstatat:storage unlinkat`);

// Of these it does not matter when they come; and nobody is told when one of the first three fails.
const FREE = { close: 'ignored', closedir: 'ignored', getrandom: 'ignored', readdir: undefined };

// How a rule has it, which may be for all calls of a name, of one in an operation or before
// another: what comes of which errno, once and when all other calls fail later; for "count", of
// short counts and of one of 0. "later" and "own" are what that errno says and what follows without
// this row; "next" and "same" what that errno makes of the next call and of this one. The temporary
// file goes before errno is read; a dup that failed shows up in the stream's opening.
const RULES = lines(`
  capture read  count   -        changed
  read          count   -        less
  pread pread   count   -        own
  pread         count   -        -
  append write  count   storage  storage
  write         count   -        outside
  readlinkat    count   entry    entry
  getrandom     count   -        -
  read          EINTR   -        same
  pread         EINTR   -        same
  write         EINTR   -        same
  ignored       any     -        next
  lost          any     own      later
  stream        any     storage  later
  absent        ENOENT  -        later
  again         ENOENT  -        later
  again         EINTR   -        later
  repeated      ENOENT  storage  later
  hidden        ENOENT  -        outside
  answer        ENOENT  less     less
  made          EEXIST  missing  missing
  taken         EEXIST  exists   exists
  linked        EEXIST  entry    entry`);

// The recorded calls, each as [name, what comes of its failure].
function stepsOf({ operation, paths, missing }, calls) {
  const start = { openRoot: `${place.root}/`, openRelative: '/' }[operation] ?? '';
  const depth = `${start}${paths[0].join('/')}`.split('/').length - 1;
  const spell = (words) =>
    words.replace(/\b([A-Z]+)\b(\*?)/g, (_, word, star) => {
      const name = missing && word === 'HAVE' ? 'NEW' : word;
      const [, , inner] = STORIES.find(([one]) => one === name);
      return `${spell(inner)} `.repeat(star ? depth : 1);
    });
  const stories = STORIES.filter(([one]) => one === operation);
  const spelt = stories.flatMap(([, , words]) => words.split('|').map(spell));
  const ways = spelt.map((words) => words.trim().split(/ +/));
  const namesOf = (way) => way.join(' ').replace(/:\w+/g, '');
  const told = calls.flatMap(([name]) => (name in FREE ? [] : name)).join(' ');
  const way = ways.find((one) => namesOf(one) === told);
  if (!way) assert.equal(told, namesOf(ways[0]), 'the calls in their order');
  return calls.map(([name]) => (name in FREE ? [name, FREE[name]] : way.shift().split(':')));
}

const failureOf = (errno) =>
  ({ ENOENT: 'missing', ENOTDIR: 'outside', ELOOP: 'outside' })[errno] ?? 'storage';

// How the operation ends: in a failure, "-" for success, or "less" for success with less.
function endOf(operation, steps, i, what, later) {
  if (i === steps.length) return '-';
  const [name, rule] = steps[i];
  const keys = [`${operation} ${name}`, `${name} ${steps[i + 1]?.[0]}`, name, rule];
  const row = RULES.find(([key, which]) => keys.includes(key) && [what, 'any'].includes(which));
  const end = row?.[later ? 3 : 2] ?? 'own';
  if (end === 'later') return failureOf(later);
  if (end === 'next') return endOf(operation, steps, i + 1, later, later);
  if (end === 'same') return endOf(operation, steps, i, later, later);
  if (end !== 'own') return end;
  return failures.includes(rule) ? rule : failureOf(what);
}

const ENDLESS = ['read', 'pread', 'write'];
const COUNTED = [...ENDLESS, 'readlinkat', 'getrandom'];

// All that can befall a step, as [plan, how the operation ends].
function faultsAt(operation, steps, i) {
  const [name, rule] = steps[i];
  const plan = (action, count, ...errnos) => ({ first: i + 1, action, count, errnos });
  const end = (...what) => endOf(operation, steps, i, ...what);
  const rows = ERRNOS.flatMap((errno) => {
    const later = failureOf(errno) === 'storage' ? 'ENOENT' : 'EIO';
    const once = [plan('fail', 1, errno), end(errno)];
    const always = [plan('fail', FOREVER, errno, later), end(errno, later)];
    const isLimited = rule === 'again' && ['EINTR', 'ENOENT'].includes(errno);
    if (!isLimited && !(errno === 'EINTR' && ENDLESS.includes(name))) return [once, always];
    const seven = [plan('fail', 7, errno, errno), '-'];
    const eight = [plan('fail', 8, errno, errno), isLimited ? failureOf(errno) : '-'];
    return [once, always, seven, eight];
  });
  if (!COUNTED.includes(name)) return rows;
  const short = [plan('short', FOREVER), end('count')];
  return [...rows, short, [plan('zero', 1, 'ELOOP'), end('count', 'ELOOP')]];
}

function assertFailed(scenario, { before, after }, { calls, after: image }) {
  if (!faults.isLawful(scenario, before, after, image)) assert.deepEqual(image, before);
  const { operation, paths } = scenario;
  const [leaf, other] = paths.map((names) => names.join('/'));
  // What is there for a while only, unless its removal was what failed.
  const passing = Object.keys(image).filter(faults.isTemporary);
  if (operation === 'publishVerified' && leaf in image && other in image) passing.push(other);
  const stuck = calls.filter(([name, , , result]) => name === 'unlinkat' && result < 0);
  const left = passing.filter((path) => !stuck.some(([, , name]) => path.endsWith(name)));
  assert.deepEqual(left, [], 'left behind');
  if (operation !== 'create' && operation !== 'append') return;
  // All that was written stays, in a file that stays.
  const opened = calls.some(([name, , is, , fd]) => name === 'openat' && is === 'leaf' && fd >= 0);
  const written = calls.find(([name, ...args]) => name === 'write' && args.at(-1) > 0)?.at(-1) ?? 0;
  const lost = BYTES.NEW.length - written;
  assert.equal(image[leaf], opened ? after[leaf].slice(0, -lost || undefined) : before[leaf]);
}

function verify(scenario, whole, end, seen) {
  const { ctx, outcome, after } = seen;
  assert.equal(tarvek.exists(ctx.handle, ['absent']), false, 'the handle still serves');
  const result = expectOutcome(end === 'less' ? '-' : end, outcome);
  if (end === '-') scenario.check(result, ctx);
  if (failures.includes(end)) return assertFailed(scenario, whole, seen);
  assert.deepEqual(after, end === 'less' ? whole.before : whole.after);
  if (end === '-') return;
  const isNothing = (one) => one === false || one.length === 0;
  assert.ok([result, ...Object.values(result)].some(isNothing), 'a lesser result');
}

const injected = {};

function sweep(scenario) {
  const { operation } = scenario;
  const whole = faults.rehearse(scenario);
  for (const [name, ...args] of whole.calls) {
    const flags = /^open/.test(name) ? args.at(-2) : SAFE_FLAGS;
    assert.equal(flags & SAFE_FLAGS, SAFE_FLAGS, `the flags of ${name} ${args}`);
  }
  const steps = stepsOf(scenario, whole.calls);
  const rows = steps.flatMap((_, i) => faultsAt(operation, steps, i));
  injected[operation] = (injected[operation] ?? 0) + rows.length;
  rows.push([{ first: steps.length + 1, action: 'fail', errnos: ['EIO'] }, '-']);
  for (const [plan, end] of rows) {
    faults.run(scenario, plan, (seen) => {
      const isReached = seen.calls.length >= plan.first;
      assert.equal(isReached, plan.first <= steps.length, 'whether the call is made');
      verify(scenario, whole, end, seen);
    });
  }
}

table(
  'whichever call fails, the operation ends as it promises',
  scenarios.map((scenario) => [scenario.name, () => sweep(scenario)]),
);

test('a handle whose close fails counts as open', () => {
  const plan = { first: 1, action: 'fail', errnos: ['EIO'] };
  faults.run({ before: {}, call: 'close' }, plan, ({ ctx, outcome, calls: [[, number]] }) => {
    expectOutcome('storage', outcome);
    // Takes the number that has come free, which closing again then closes.
    const taken = [];
    while (taken.at(-1) !== number) taken.push(fs.openSync(ctx.root));
    for (const fd of taken.slice(0, -1)) fs.closeSync(fd);
    assert.equal(tarvek.exists(ctx.handle, ['absent']), false);
  });
});

test('as many faults were injected as ever', (t) => {
  t.diagnostic(JSON.stringify(injected));
  for (const [operation, fewest] of STORIES) {
    // The longer form more than doubles them.
    const enough = fewest * (FULL ? 2.4 : 1);
    if (enough > 0) assert.ok(injected[operation] >= enough, `${operation}, less than ${enough}`);
  }
});
