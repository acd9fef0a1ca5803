'use strict';

// Every call that an operation makes fails in turn, once and from then on, and the operation must
// end as it promises. TARVEK_TEST_FULL=1 tries what a file system may report, else an errno of a kind.

const faults = require('./support/faults.js');
const assert = require('node:assert/strict');
const test = require('node:test');
const { BYTES, expectOutcome, lines, place, table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const RARER = 'ENOSPC EDQUOT EACCES EPERM EMFILE ENOMEM ENOTDIR EROFS'.split(' ');
const ERRNOS = ['EIO', 'ENOENT', 'ELOOP', 'EEXIST', 'EINTR', ...(faults.full ? RARER : [])];
const FOREVER = 1 << 30;

// How many faults the shorter form has injected at least, and the calls that an operation makes, in
// one of these ways. Behind a colon is what comes of a call that fails, a failure or one of the rules
// below, if not what its errno says. Words in capitals are spelt out further down; with a star, once
// for each directory on the way.
const STORIES = lines(`
  openRoot               860   open STEP* open CHAIN fstat:outside dup
  openRelative           400   WALK CHAIN fstat:outside dup
  exists                 790   dup LOOK* CHAIN fstatat:answer
  exists                 0     dup LOOK openat:answer
  read                   348   WALK CHAIN TAKE LOAD
  list                   460   WALK CHAIN STEP NAMES
  capture                1196  WALK CHAIN ENTER NAMES COPY ENTER NAMES COPY AGAIN AGAIN CHAIN
  snapshot               936   WALK CHAIN STEP NAMES SAFE LOAD SAFE NAMES SAFE LOAD
  write                  1882  MAKE CHAIN fstatat:maybe openat write:lost fsync:lost CHAIN renameat fsync
  create                 652   MAKE CHAIN fstatat:maybe openat:taken write fsync fsync
  append                 1120  MAKE CHAIN fstatat:maybe openat:again AGAIN write fsync fsync
  ensureDirectory        790   MAKE CHAIN fstatat:maybe mkdirat fsync
  ensureDirectory        0     MAKE CHAIN fstatat:directory
  remove                 1100  WALK CHAIN GONE fsync
  remove                 0     WALK CHAIN OPEN GONE OPEN GONE EMPTY EMPTY fsync
  remove                 0     WALK CHAIN OPEN OPEN GONE EMPTY GONE EMPTY fsync
  removeIfEquals         536   WALK CHAIN fstatat openat SAME fstatat:removal CHAIN unlinkat fsync
  move                   2020  WALK MAKE CHAIN CHAIN fstatat fstatat:maybe renameat fsync fsync
  ensureRelativeSymlink  1664  TARGET MAKE CHAIN fstatat:place CHAIN symlinkat:link fsync
  ensureRelativeSymlink  0     TARGET MAKE CHAIN fstatat:place readlinkat:entry
  publishVerified        1604  WALK MAKE CHAIN CHAIN CHAIN CHAIN VERIFY PUBLISH fsync fsync
  exchangeForTest        10    syscall
  STEP                   -     openat fstat:outside fstatat:outside
  LOOK                   -     openat:answer fstat:outside fstatat:outside
  HAVE                   -     openat:walk fstat:outside fstatat:outside
  NEW                    -     openat:walk mkdirat:made openat fstat:outside fstatat:outside fsync
  WALK                   -     dup STEP*
  CHAIN                  -     dup:outside PROVE*
  PROVE                  -     fstatat:outside openat:outside
  NAMES                  -     dup:stream fdopendir
  TAKE                   -     fstatat openat fstat
  LOAD                   -     calloc:storage read
  AGAIN                  -     fstat fstatat
  COPY                   -     TAKE LOAD AGAIN
  ENTER                  -     fstatat openat fstat:replacedDirectory
  SAFE                   -     fstatat openat fstat:outside
  OPEN                   -     fstatat openat NAMES
  EMPTY                  -     fsync unlinkat
  GONE                   -     fstatat unlinkat
  SAME                   -     fstat:removal pread:removal pread:removal fstat:removal
  TARGET                 -     WALK CHAIN fstatat
  VERIFY                 -     fcntl:candidate VIEW pread:candidate pread:candidate VIEW
  VIEW                   -     fstat:candidate fstatat:candidate
  PUBLISH                -     linkat:taken fstatat:storage unlinkat`);

// Of these it does not matter when they come; and nobody is told when one of the first three fails.
const FREE = { close: 'ignored', closedir: 'ignored', getrandom: 'ignored', readdir: undefined };

// The recorded calls as [name, rule].
function stepsOf({ operation, paths, missing }, calls) {
  const start = { openRoot: `${place.root}/`, openRelative: '/' }[operation] ?? '';
  const depth = `${start}${paths[0].join('/')}`.split('/').length - 1;
  const spell = (word) => {
    const [, name, star] = /^([A-Z]+)(\*?)$/.exec(word) ?? [];
    if (!name) return [word.split(':')];
    if (name === 'MAKE') return ['dup', missing ? 'NEW*' : 'HAVE*'].flatMap(spell);
    const [, , words] = STORIES.find(([one]) => one === name);
    const steps = words.split(' ').flatMap(spell);
    return star ? Array(depth).fill(steps).flat() : steps;
  };
  const stories = STORIES.filter(([one]) => one === operation);
  const ways = stories.map(([, , words]) => words.split(' ').flatMap(spell));
  const namesOf = (steps) => steps.map(([name]) => name).join(' ');
  const told = namesOf(calls.filter(([name]) => !(name in FREE)));
  const way = ways.find((steps) => namesOf(steps) === told);
  if (!way) assert.equal(told, namesOf(ways[0]), 'the calls in their order');
  return calls.map(([name]) => (name in FREE ? [name, FREE[name]] : way.shift()));
}

const failureOf = (errno) =>
  ({ ENOENT: 'missing', ENOTDIR: 'outside', ELOOP: 'outside' })[errno] ?? 'storage';
const whatThen = (then) => (then ? failureOf(then) : '-');

// What comes of an errno if not its failure, given the errno with which all further calls fail (none
// when they succeed) and what comes of that at the next call.
const RULES = {
  maybe: { ENOENT: (_, next) => next() },
  answer: { ENOENT: () => 'less' },
  walk: { ENOENT: whatThen },
  made: { EEXIST: () => 'missing' },
  again: { ENOENT: whatThen, EINTR: whatThen },
  taken: { EEXIST: () => 'exists' },
  directory: { ENOENT: (then) => failureOf(then ?? 'EEXIST') },
  place: { ENOENT: (then) => (then ? 'outside' : '-') },
  link: { EEXIST: () => 'entry' },
};
const isInterrupted = ([name], errno) =>
  errno === 'EINTR' && ['read', 'pread', 'write'].includes(name);

// How the operation ends: in a failure, "-" for success, or "less" for success with less.
function endOf(steps, i, errno, then) {
  if (i === steps.length) return '-';
  const next = (step = i + 1) => (then ? endOf(steps, step, then, then) : '-');
  if (isInterrupted(steps[i], errno)) return next(i);
  const [, rule] = steps[i];
  if (rule === 'ignored') return next();
  // The temporary file goes before errno is read; a dup that failed shows up in its use.
  if (rule === 'lost') return failureOf(then ?? errno);
  if (rule === 'stream') return failureOf(then ?? 'EBADF');
  if (rule && !RULES[rule]) return rule;
  return RULES[rule]?.[errno]?.(then, next) ?? failureOf(errno);
}

// What comes of short counts, and of one of 0.
function countEnds(operation, [name, rule], following) {
  const ends = {
    read: ['-', operation === 'capture' ? 'changed' : 'less'],
    pread: ['-', following?.[0] === name ? rule : '-'],
    write: operation === 'append' ? ['storage', 'storage'] : ['-', 'outside'],
    readlinkat: ['entry', 'entry'],
    getrandom: ['-', '-'],
  };
  return ends[name] ?? [];
}

// All that can befall a step, as [plan, how the operation ends].
function faultsAt(operation, steps, i) {
  const plan = (action, count, ...errnos) => ({ first: i + 1, action, count, errnos });
  const rows = ERRNOS.flatMap((errno) => {
    const then = failureOf(errno) === 'storage' ? 'ENOENT' : 'EIO';
    const once = [plan('fail', 1, errno), endOf(steps, i, errno)];
    const always = [plan('fail', FOREVER, errno, then), endOf(steps, i, errno, then)];
    const limited = steps[i][1] === 'again' && RULES.again[errno];
    if (!limited && !isInterrupted(steps[i], errno)) return [once, always];
    const seven = [plan('fail', 7, errno, errno), '-'];
    const eight = [plan('fail', 8, errno, errno), limited ? failureOf(errno) : '-'];
    return [once, always, seven, eight];
  });
  const [short, none] = countEnds(operation, steps[i], steps[i + 1]);
  if (!short) return rows;
  return [...rows, [plan('short', FOREVER), short], [plan('zero', 1, 'ELOOP'), none]];
}

function assertFailed(scenario, { before, after }, { calls, image }) {
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
  const counts = calls.map((call) => (call[0] === 'write' ? Math.max(call.at(-1), 0) : 0));
  const lost = BYTES.NEW.length - counts.reduce((sum, count) => sum + count, 0);
  assert.equal(image[leaf], opened ? after[leaf].slice(0, -lost || undefined) : before[leaf]);
}

function verify(scenario, whole, end, seen) {
  const { ctx, outcome, image } = seen;
  if (end === '-') {
    scenario.check(expectOutcome(end, outcome), ctx);
    assert.deepEqual(image, whole.after);
  } else if (end === 'less') {
    const isNothing = (one) => one === false || one.length === 0;
    assert.ok(
      [outcome.result, ...Object.values(outcome.result)].some(isNothing),
      'a lesser result',
    );
    assert.deepEqual(image, whole.before);
  } else {
    expectOutcome(end, outcome);
    assertFailed(scenario, whole, seen);
  }
  assert.equal(tarvek.exists(ctx.handle, ['absent']), false, 'the handle still serves');
}

const injected = {};

function sweep(scenario) {
  const { operation } = scenario;
  faults.rehearse(scenario, (run, whole) => {
    const steps = stepsOf(scenario, whole.calls);
    const rows = steps.flatMap((_, i) => faultsAt(operation, steps, i));
    injected[operation] = (injected[operation] ?? 0) + rows.length;
    rows.push([{ first: steps.length + 1, action: 'fail', errnos: ['EIO'] }, '-']);
    for (const [plan, end] of rows) {
      try {
        run(plan, (seen) => {
          const isReached = seen.calls.length >= plan.first;
          assert.equal(isReached, plan.first <= steps.length, 'whether the call is made');
          verify(scenario, whole, end, seen);
        });
      } catch (error) {
        error.message = `${steps[plan.first - 1]} ${JSON.stringify(plan)}: ${error.message}`;
        throw error;
      }
    }
  });
}

table(
  'whichever call fails, the operation ends as it promises',
  scenarios.map((scenario) => [scenario.name, () => sweep(scenario)]),
);

test('as many faults were injected as ever', (t) => {
  t.diagnostic(JSON.stringify(injected));
  for (const [operation, fewest] of STORIES) {
    if (fewest > 0) assert.ok(injected[operation] >= fewest, `${operation}, less than ${fewest}`);
  }
});
