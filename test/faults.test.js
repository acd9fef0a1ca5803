'use strict';

// Compares the system calls of every operation with its listing in test/operations/. Then makes each
// call go wrong in each way that test/README.md explains, and compares the end with the listing's notes
// and the disk with what the calls before it left.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { cellsOf, expectOutcome, failures, imageOf } = require('./support/harness.js');
const { table, thrownBy, withoutTemporary } = require('./support/harness.js');
const { NOTHING, recordedCalls, run } = require('./support/interposer.js');
const { FIELDS, fold, textsOf } = require('./support/listings.js');
const { scenarios } = require('./support/rows.js');
const tarvek = require('./support/tarvek.js');

const ERRNOS = ['EIO', 'ENOENT', 'ELOOP', 'EEXIST', 'EINTR'];
const failureOf = (error) => ({ ENOENT: 'missing', ELOOP: 'outside' })[error] ?? 'storage';
// The module ignores failures of these.
const IGNORED = ['close', 'closedir', 'getrandom'];
// The module repeats these after EINTR.
const REPEATED = ['read', 'pread', 'write'];
const COUNTING = [...REPEATED, 'readlinkat', 'getrandom'];
const FOREVER = 1 << 30;

const rowsOf = (list) => list.map((scenario) => [scenario.name, scenario]);
const isListed = ({ text }) => text !== undefined;
const flushesIn = (calls) => textsOf(calls.filter(({ name }) => name === 'fsync'));

// Runs the scenario without a fault. Returns the result, the calls, the trees before and after, and
// room for the images of imageWhenFailing.
function rehearse(scenario) {
  const before = imageOf(scenario.before);
  let normal;
  run(scenario, NOTHING, ({ ctx, outcome, after }) => {
    const result = expectOutcome('-', outcome);
    scenario.check(result, ctx);
    normal = { result, calls: recordedCalls(), before, after, images: new Map() };
  });
  return normal;
}

const LISTED = 'each operation makes the listed calls, and no others, in this order';
table(LISTED, rowsOf(scenarios), (scenario) => {
  const actual = textsOf(rehearse(scenario).calls.filter(isListed));
  const listed = textsOf(scenario.listing);
  if (isDeepStrictEqual(actual, listed)) return;
  assert.equal(fold(actual, scenario.words), fold(listed, scenario.words));
});

// Everything that can go wrong at a call, as [plan, outcome].
function faultsAt({ nth: first, name, error: failed }, notes) {
  const faults = [];
  const at = { first, name };
  for (const error of ERRNOS) {
    const isIgnored = IGNORED.includes(name) || (error === 'EINTR' && REPEATED.includes(name));
    const usual = isIgnored ? '-' : (notes.fails ?? failureOf(error));
    faults.push([{ ...at, action: 'fail', error }, notes[error] ?? usual]);
  }
  if (COUNTING.includes(name)) {
    faults.push([{ ...at, action: 'short', count: FOREVER }, notes.short ?? '-']);
    faults.push([{ ...at, action: 'zero', error: 'ELOOP' }, notes.zero ?? '-']);
  }
  if (!name.startsWith('fstat') || failed) return faults;
  for (const field of FIELDS) {
    const always = notes[field] ?? '-';
    const once = notes[`once ${field}`] ?? always;
    faults.push([{ ...at, action: 'alter', field, count: FOREVER }, always]);
    faults.push([{ ...at, action: 'alter', field }, once]);
  }
  return faults;
}

const CHANGING = /^(mkdir|unlink|symlink|link|rename)at|^write|CREAT/;

// The disk as the calls before the failing one left it, without what the operation cleans up. If all
// calls fail from there on, nothing is cleaned up. The image is the same up to the next call that
// changes something.
function imageWhenFailing(scenario, normal, { first, name, action }) {
  if (!scenario.mutates) return normal.before;
  const kind = action === 'short' ? 'cut' : 'fail';
  const changes = normal.calls.filter(({ nth, text }) => nth < first && CHANGING.test(text));
  const key = `${kind} ${changes.length}`;
  if (normal.images.has(key)) return normal.images.get(key);
  let image;
  const plan = { first, name, action: kind, count: FOREVER };
  run(scenario, { ...plan, error: 'EIO' }, ({ after }) => {
    image = withoutTemporary(after);
  });
  const { operation, leaf, other } = scenario;
  if (operation === 'publishVerified' && leaf in image) {
    delete image[other];
    image[leaf] = normal.before[leaf];
  }
  normal.images.set(key, image);
  return image;
}

// All bytes and names in a result.
function textOf(value) {
  if (typeof value !== 'object' || Buffer.isBuffer(value)) return String(value);
  return Object.values(value).map(textOf).join('');
}

// What a call that does not fail may return, by the word in the listing.
const ENDINGS = {
  '-': (result, { scenario, ctx }) => scenario.check(result, ctx),
  false: (result) => assert.equal(result, false),
  less: (result, { normal }) => {
    const [less, all] = [result, normal.result].map(textOf);
    assert.ok(less.length < all.length && !less.includes('\0'), `${less} instead of ${all}`);
  },
  other: (result, { plan }) => {
    // faults.c adds 2 ** 40 to one of these.
    const { dev, ino } = tarvek.rootIdentity(result);
    tarvek.close(result);
    assert.ok({ device: dev, inode: ino }[plan.field] >= 2n ** 40n, 'another identity');
  },
};

function verifyFault(scenario, normal, plan, expected) {
  const isFailure = failures.has(expected);
  const image = isFailure ? imageWhenFailing(scenario, normal, plan) : normal.after;
  run(scenario, plan, ({ ctx, outcome, after }) => {
    assert.equal(tarvek.exists(ctx.handle, ['absent']), false, 'the handle still works');
    const result = expectOutcome(isFailure ? expected : '-', outcome);
    assert.deepEqual(after, image, 'the disk');
    if (isFailure) return;
    ENDINGS[expected](result, { scenario, ctx, normal, plan });
    assert.deepEqual(flushesIn(recordedCalls()), flushesIn(normal.calls), 'the flushes');
  });
}

const faulty = scenarios.filter(({ isDeep }) => isDeep);

// A sequence is the same code in every operation. Each of its calls is tried in full where it stands
// first. Elsewhere it fails in one way, which shows that the operation ends when the sequence fails.
const firsts = new Map();
for (const call of faulty.flatMap(({ listing }) => listing)) {
  if (!firsts.has(call.shared)) firsts.set(call.shared, call);
}
const isOneWay = ([{ error, field }, expected]) => {
  return expected !== '-' && (error === 'EIO' || field === 'inode');
};
function faultsToTry(call, listed) {
  const faults = faultsAt(call, listed.notes);
  const isRepeated = listed.shared && firsts.get(listed.shared) !== listed;
  return isRepeated ? faults.filter(isOneWay) : faults;
}

table('any fault at any system call ends as its listing says', rowsOf(faulty), (scenario) => {
  const normal = rehearse(scenario);
  const calls = normal.calls.filter(isListed);
  assert.equal(calls.length, scenario.listing.length, 'the number of calls in the listing');
  const wrong = [];
  for (const [i, listed] of scenario.listing.entries()) {
    const { nth, text } = calls[i];
    if (nth === undefined) continue;
    for (const [plan, expected] of faultsToTry(calls[i], listed)) {
      const { thrown } = thrownBy(() => verifyFault(scenario, normal, plan, expected));
      const { action, field = '', error = '', count } = plan;
      const what = `${action} ${field}${error}${count ? ' from there on' : ''}`;
      if (thrown) wrong.push(`call ${nth}, ${text}: ${what}, not ${expected}: ${thrown.message}`);
    }
  }
  if (wrong.length > 0) assert.fail(`${wrong.length} wrong\n${wrong.join('\n')}`);
});

// The scenario, the system call, what happens to how many calls from its first use on, the errno of
// the first failure and of the later ones, and the outcome.
const IN_A_ROW = cellsOf(`
  read leaf                               read      fail  20  EINTR   EINTR   -
  write leaf NEW stage, nothing           write     fail  20  EINTR   EINTR   -
  append leaf 19 4 NEW, a file            openat    fail  7   ENOENT  EINTR   -
  append leaf 19 4 NEW, a file            openat    fail  8   ENOENT  EINTR   storage
  write leaf NEW stage, nothing           write     fail  99  ENOSPC  ENOENT  missing
  write leaf NEW stage, nothing           renameat  fail  99  ENOENT  EIO     missing
  publishVerified fd:leaf leaf other OLD  unlinkat  fail  99  EIO     ENOENT  storage
  write leaf NEW stage, nothing           write     cut   2   EIO     EIO     storage
  read leaf                               read      cut   2   EIO     EIO     storage`);
const inARow = IN_A_ROW.map((words) => [words.join(' '), ...words]);

table('several faults in a row end as their errnos say', inARow, (row, name, ...rest) => {
  const [action, count, error, then, expected] = rest;
  const scenario = scenarios.find(({ name }) => name === row);
  const normal = rehearse(scenario);
  const { nth: first } = normal.calls.find((call) => call.name === name);
  const plan = { name, first, action, count, error, then };
  run(scenario, plan, ({ ctx, outcome, after }) => {
    const result = expectOutcome(expected, outcome);
    if (expected !== '-') return;
    scenario.check(result, ctx);
    assert.deepEqual(after, normal.after, 'the disk');
  });
});

const LARGE = ['write leaf MANY', 'create leaf MANY', 'append leaf 0 0 MANY'];
const large = LARGE.map((call) => [call, call]);

table('many bytes are flushed too, before the directory', large, (call) => {
  run({ before: {}, call }, NOTHING, ({ outcome }) => {
    expectOutcome('-', outcome);
    const names = recordedCalls().map(({ name }) => name);
    const effects = names.filter((name) => name === 'write' || name === 'fsync');
    assert.match(effects.join(' '), /write fsync fsync$/);
  });
});

test('a handle whose close fails counts as open', () => {
  const plan = { first: 1, name: 'close', action: 'fail', error: 'EIO' };
  run({ before: {}, call: 'close' }, plan, ({ ctx, outcome }) => {
    expectOutcome('storage', outcome);
    // The number of its descriptor is free. Once another open takes the number, the handle works
    // again, and closing the handle closes that descriptor.
    const opened = [];
    const works = () => 'result' in thrownBy(() => tarvek.exists(ctx.handle, ['absent']));
    while (!works() && opened.length < 50) opened.push(fs.openSync(ctx.root));
    for (const fd of opened.slice(0, -1)) fs.closeSync(fd);
    assert.ok(works(), 'the handle works again');
  });
});
