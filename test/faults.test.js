'use strict';

// Compares the system calls of every operation with the listings in test/calls/. Then makes each
// call go wrong: it fails with one of several errnos, moves fewer bytes, or, for fstat and fstatat,
// reports another value, once or from there on. The operation must end as the note on the call's
// line says. Without a note, a failing call must end the operation in the failure of its errno, and
// leave the disk as the calls before it left it. Any other fault must make no difference.

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
// The module ignores failures of these.
const IGNORED = ['close', 'closedir', 'getrandom'];
// The module repeats these after EINTR.
const REPEATED = ['read', 'pread', 'write'];
const COUNTING = [...REPEATED, 'readlinkat', 'getrandom'];
const FOREVER = 1 << 30;
const ACTUAL = path.join(__dirname, '../build/test/calls');

const everywhere = (title, verify) => {
  const rows = scenarios.map((scenario) => [scenario.name, () => verify(scenario)]);
  table(title, rows);
};
const isListed = ({ text }) => text !== undefined;

everywhere('each operation makes the listed calls, and no others, in this order', (scenario) => {
  const [actual, listed] = [rehearse(scenario).calls.filter(isListed), scenario.listing];
  const texts = [actual, listed].map((calls) => calls.map(({ text }) => `  ${text}`).join('\n'));
  if (texts[0] === texts[1]) return;
  fs.mkdirSync(ACTUAL, { recursive: true });
  const file = path.join(ACTUAL, `${scenario.name.replace(/\W+/g, '-')}.txt`);
  fs.writeFileSync(file, `${scenario.name}\n${texts[0]}\n`);
  assert.equal(...texts, `the actual calls are in ${file}`);
});

// Everything that can go wrong at a call, as [plan, outcome].
function faultsAt({ nth: first, name, error: failed }, notes) {
  const isIgnored = (error) =>
    IGNORED.includes(name) || (error === 'EINTR' && REPEATED.includes(name));
  const failing = ERRNOS.map((error) => {
    const usual = isIgnored(error) ? '-' : (notes.fails ?? failureOf(error));
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
  const isStat = name.startsWith('fstat') && !failed;
  return [...failing, ...(COUNTING.includes(name) ? counted : []), ...(isStat ? altered : [])];
}

// The disk as the calls before the failing one left it, without what the operation cleans up.
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
const textOf = (value) =>
  typeof value !== 'object' || Buffer.isBuffer(value)
    ? String(value)
    : Object.values(value).map(textOf).join('');

const flushesIn = (calls) => calls.filter(({ name }) => name === 'fsync').map(({ text }) => text);

function verify(scenario, normal, plan, expected, { ctx, outcome, calls, after }) {
  assert.equal(tarvek.exists(ctx.handle, ['absent']), false, 'the handle still works');
  const isFailure = failures.includes(expected);
  const result = expectOutcome(isFailure ? expected : '-', outcome);
  if (expected === '-') {
    scenario.check(result, ctx);
    assert.deepEqual(flushesIn(calls), flushesIn(normal.calls), 'the flushes');
  }
  if (expected === 'other') {
    const { dev, ino } = tarvek.rootIdentity(result);
    assert.ok({ device: dev, inode: ino }[plan.field] >= FAR);
    tarvek.close(result);
  }
  if (expected === 'false') assert.equal(result, false);
  if (expected === 'less') {
    const [less, all] = [result, normal.result].map(textOf);
    assert.ok(less.length < all.length && !less.includes('\0'), `${less} instead of ${all}`);
  }
  if (!isFailure) return assert.deepEqual(after, expected === '-' ? normal.after : normal.before);
  assert.deepEqual(plain(after), imageWhenFailing(scenario, normal, plan), 'the disk');
}

everywhere('any fault at any system call ends as its listing says', (scenario) => {
  const normal = rehearse(scenario);
  const calls = normal.calls.filter(isListed);
  assert.equal(calls.length, scenario.listing.length, 'the number of calls');
  for (const [i, { notes }] of scenario.listing.entries()) {
    for (const [plan, expected] of calls[i].nth ? faultsAt(calls[i], notes) : []) {
      run(scenario, plan, (seen) => verify(scenario, normal, plan, expected, seen));
    }
  }
});

// The scenario, the system call, how many calls fail from its first use on, the errno of the first
// failure and of the later ones, and the outcome.
const IN_A_ROW = lines(`
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

const inARow = IN_A_ROW.map(([name, call, count, error, then, expected]) => [
  `${name}: ${call} ${count} times, ${error}, then ${then}`,
  () => {
    const scenario = scenarios.find((one) => one.name === name);
    const normal = rehearse(scenario);
    const { nth: first } = normal.calls.find((one) => one.name === call);
    run(scenario, { action: 'fail', first, count: Number(count), error, then }, (seen) => {
      const result = expectOutcome(expected, seen.outcome);
      if (expected !== '-') return;
      scenario.check(result, seen.ctx);
      assert.deepEqual(seen.after, normal.after);
    });
  },
]);
table('several failures in a row: a retry succeeds, or the right errno decides', inARow);

test('a handle whose close fails counts as open', () => {
  const plan = { first: 1, action: 'fail', error: 'EIO' };
  run({ before: {}, call: 'close' }, plan, ({ ctx, outcome }) => {
    expectOutcome('storage', outcome);
    // The number of its descriptor is free. Once another open takes the number, the handle works
    // again, and closing the handle closes that descriptor.
    const opened = [];
    const works = () => 'result' in thrownBy(() => tarvek.exists(ctx.handle, ['absent']));
    while (!works() && opened.length < 50) opened.push(fs.openSync(ctx.root));
    for (const fd of opened.slice(0, -1)) fs.closeSync(fd);
    assert.ok(works());
  });
});
