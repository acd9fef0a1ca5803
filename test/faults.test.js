'use strict';

// Compares the system calls of every operation with the listings in test/calls/. Then makes each
// call go wrong: it fails with several errnos, moves fewer bytes, or, for fstat and fstatat,
// reports another value, once or from there on. The operation must end as the note on the call's
// line says. Without a note, a failing call ends the operation in the failure of its errno and
// leaves the disk as the calls before it made it; anything else makes no difference.

const { run, rehearse, FIELDS, FAR } = require('./support/faults.js');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { Disk, plain } = require('./support/disk.js');
const { BYTES, expectOutcome, failures, lines, table, thrownBy } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const ERRNOS = ['EIO', 'ENOENT', 'ELOOP', 'EEXIST', 'EINTR'];
const failureOf = (error) => ({ ENOENT: 'missing', ELOOP: 'outside' })[error] ?? 'storage';
// Their failures are ignored.
const IGNORED = ['close', 'closedir', 'getrandom'];
// These are repeated after EINTR.
const REPEATED = ['read', 'pread', 'write'];
const COUNTING = [...REPEATED, 'readlinkat', 'getrandom'];
const FOREVER = 1 << 30;
const ACTUAL = path.join(__dirname, '../build/test/calls');

const everywhere = (title, verify) => {
  const rows = scenarios.map((scenario) => [scenario.name, () => verify(scenario)]);
  table(title, rows);
};
const isListed = ({ text }) => text !== undefined;

everywhere('the calls are the ones listed, with the hooks and stages between them', (scenario) => {
  const [actual, listed] = [rehearse(scenario).calls.filter(isListed), scenario.listing];
  const texts = [actual, listed].map((calls) => calls.map(({ text }) => `  ${text}`).join('\n'));
  if (texts[0] === texts[1]) return;
  fs.mkdirSync(ACTUAL, { recursive: true });
  const file = path.join(ACTUAL, `${scenario.name.replace(/\W+/g, '-')}.txt`);
  fs.writeFileSync(file, `${scenario.name}\n${texts[0]}\n`);
  assert.equal(...texts, `what was called is in ${file}`);
});

// All that can go wrong at a call, as [plan, outcome].
function faultsAt({ nth: first, name, error: failed }, notes) {
  const isUnheard = (error) =>
    IGNORED.includes(name) || (error === 'EINTR' && REPEATED.includes(name));
  const failing = ERRNOS.map((error) => {
    const usual = isUnheard(error) ? '-' : (notes.fails ?? failureOf(error));
    return [{ first, action: 'fail', error }, notes[error] ?? usual];
  });
  const counted = [
    [{ first, action: 'short', count: FOREVER }, notes.short ?? '-'],
    [{ first, action: 'zero', error: 'ELOOP' }, notes.zero ?? '-'],
  ];
  const altered = FIELDS.flatMap((field) => [
    [{ first, action: 'alter', field, count: FOREVER }, notes[field] ?? '-'],
    [{ first, action: 'alter', field }, notes[`once ${field}`] ?? notes[field] ?? '-'],
  ]);
  const isLook = name.startsWith('fstat') && !failed;
  return [...failing, ...(COUNTING.includes(name) ? counted : []), ...(isLook ? altered : [])];
}

// The disk as the calls before the failing one made it, without what the operation cleans up.
function imageWhenFailing({ operation, paths }, { calls, before, after }, { first, action }) {
  const disk = new Disk(before, 'none');
  for (const call of calls) if (call.nth < first) disk.apply(call);
  const image = disk.now();
  const [leaf, other] = paths.map((names) => names.join('/'));
  for (const name of Object.keys(image)) if (name.includes('.tarvek-')) delete image[name];
  if (operation === 'publishVerified' && image[leaf]) delete image[other];
  const isShort = action === 'short' && operation === 'append';
  if (isShort) image[leaf] = plain(after)[leaf].slice(0, -(BYTES.NEW.length >> 1));
  return image;
}

// All bytes and names in a result.
const textOf = (is) =>
  typeof is !== 'object' || Buffer.isBuffer(is)
    ? String(is)
    : Object.values(is).map(textOf).join('');

const flushesIn = (calls) => calls.filter(({ name }) => name === 'fsync').map(({ text }) => text);

function verify(scenario, whole, plan, expected, { ctx, outcome, calls, after }) {
  assert.equal(tarvek.exists(ctx.handle, ['absent']), false, 'the handle still serves');
  const isFailure = failures.includes(expected);
  const result = expectOutcome(isFailure ? expected : '-', outcome);
  if (expected === '-') {
    scenario.check(result, ctx);
    assert.deepEqual(flushesIn(calls), flushesIn(whole.calls), 'the flushes');
  }
  if (expected === 'other') {
    const { dev, ino } = tarvek.rootIdentity(result);
    assert.ok({ device: dev, inode: ino }[plan.field] >= FAR);
    tarvek.close(result);
  }
  if (expected === 'false') assert.equal(result, false);
  if (expected === 'less') {
    const [less, all] = [result, whole.result].map(textOf);
    assert.ok(less.length < all.length && !less.includes('\0'), `${less} instead of ${all}`);
  }
  if (!isFailure) return assert.deepEqual(after, expected === '-' ? whole.after : whole.before);
  assert.deepEqual(plain(after), imageWhenFailing(scenario, whole, plan), 'the disk');
}

everywhere('a call that fails or tells something else ends as its line says', (scenario) => {
  const whole = rehearse(scenario);
  const calls = whole.calls.filter(isListed);
  assert.equal(calls.length, scenario.listing.length, 'as many calls as listed');
  for (const [i, { notes }] of scenario.listing.entries()) {
    for (const [plan, expected] of calls[i].nth ? faultsAt(calls[i], notes) : []) {
      run(scenario, plan, (seen) => verify(scenario, whole, plan, expected, seen));
    }
  }
});

// The scenario, the call, how many calls fail from the first such call on, the errno of the first
// one and of the others, and the outcome.
const AGAIN = lines(`
  read leaf                      read      20  EINTR   EINTR   -
  removeIfEquals leaf OLD        pread     20  EINTR   EINTR   -
  write leaf NEW, a file         write     20  EINTR   EINTR   -
  append leaf 19 4 NEW, a file   write     20  EINTR   EINTR   -
  append leaf 19 4 NEW, a file   openat    7   ENOENT  EINTR   -
  append leaf 19 4 NEW, a file   openat    8   ENOENT  EINTR   storage
  append leaf 19 4 NEW, a file   openat    8   EINTR   ENOENT  missing
  write leaf NEW, a file         write     99  ENOSPC  ENOENT  missing
  write leaf NEW, a file         fsync     99  EIO     ELOOP   outside
  write leaf NEW, a file         renameat  99  EACCES  ENOENT  storage
  write leaf NEW, a file         renameat  99  ENOENT  EIO     missing
  publishVerified fd:leaf leaf other OLD  unlinkat  99  EIO     ENOENT  storage`);

const again = AGAIN.map(([name, call, count, error, then, expected]) => [
  `${name}: ${call} ${count} times, ${error}, then ${then}`,
  () => {
    const scenario = scenarios.find((one) => one.name === name);
    const whole = rehearse(scenario);
    const { nth: first } = whole.calls.find((one) => one.name === call);
    run(scenario, { action: 'fail', first, count: Number(count), error, then }, (seen) => {
      const result = expectOutcome(expected, seen.outcome);
      if (expected !== '-') return;
      scenario.check(result, seen.ctx);
      assert.deepEqual(seen.after, whole.after);
    });
  },
]);
table('a call that fails again and again', again);

test('a handle whose close fails counts as open', () => {
  const plan = { first: 1, action: 'fail', error: 'EIO' };
  run({ before: {}, call: 'close' }, plan, ({ ctx, outcome }) => {
    expectOutcome('storage', outcome);
    // Its number is free. The handle works again when another file takes the number, and closes
    // that.
    const taken = [];
    const isServing = () => 'result' in thrownBy(() => tarvek.exists(ctx.handle, ['absent']));
    while (!isServing() && taken.length < 50) taken.push(fs.openSync(ctx.root));
    for (const fd of taken.slice(0, -1)) fs.closeSync(fd);
    assert.ok(isServing());
  });
});
