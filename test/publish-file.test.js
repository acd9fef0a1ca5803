'use strict';

// publishFile, finishPublish and removeLeftovers: how they end, and what is on the disk afterwards.

const assert = require('node:assert/strict');
const { createHash } = require('node:crypto');
const fs = require('node:fs');
const { open } = require('node:fs/promises');
const test = require('node:test');
const { publishFile, finishPublish, removeLeftovers } = require('../promises/index.js');
const { inRoot, outcomeOf, runCalls } = require('./support/async-root.js');
const { place, assertTree, expectOutcome } = require('./support/harness.js');
const { OLD, symlink, hardlink, fifo, fresh, build, treeOf } = require('./support/layouts.js');

const hashOf = (content) => createHash('sha256').update(content).digest('hex');
const FROM = ['s', 'c'];
const TO = ['n', 'd'];
const candidate = place.at(...FROM);
const linked = (at) => fs.linkSync(candidate, at);
const replacedBy = (layout) => () => {
  fs.renameSync(candidate, `${candidate}~`);
  build(candidate, layout);
};

// How the call ends, and what differs from a call that succeeds.
const REFUSALS = {
  'other content': ['candidate', { sha256: hashOf('other') }],
  'a candidate that grew': ['candidate', { before: () => fs.appendFileSync(candidate, 'x') }],
  'a second hard link': ['candidate', { before: () => linked(`${candidate}~`) }],
  'a renamed candidate': ['candidate', { before: replacedBy(undefined) }],
  'an equal file in its place': ['candidate', { before: replacedBy(OLD) }],
  'a writable file': ['candidate', { flags: 'r+' }],
  'a descriptor with O_PATH': ['candidate', { flags: 0o10000000 }],
  'an open directory': ['candidate', { opened: place.at('s') }],
  'a closed file': ['outside', { before: (file) => file.close() }],
  'a number as the file': ['outside', { toFile: (file) => file.fd }],
  'no file': ['outside', { toFile: () => undefined }],
  'a wrong candidate': ['outside', { from: ['s', '..', 's', 'c'] }],
  'a wrong destination': ['outside', { to: [] }],
  'a taken destination': ['exists', { to: ['taken'] }],
  'a missing directory': ['missing', { from: ['nowhere', 'c'] }],
  'no hash': ['storage', { sha256: undefined }],
  'half a hash': ['storage', { sha256: hashOf(OLD).slice(32) }],
};

// Returns the outcome and the disk before the call.
async function publish(root, changes) {
  const { opened = candidate, flags = 'r', before = () => {}, toFile = (file) => file } = changes;
  const { from = FROM, to = TO, sha256 } = { sha256: hashOf(OLD), ...changes };
  const file = await open(opened, flags);
  await before(file);
  const image = treeOf(place.root);
  const outcome = await outcomeOf(publishFile(root, toFile(file), from, to, { sha256 }));
  await file.close();
  return { outcome, image };
}

for (const [what, [expected, changes]] of Object.entries(REFUSALS)) {
  test(`publishFile refuses ${what}`, () =>
    inRoot({ s: { c: OLD }, taken: '', n: {} }, async (root) => {
      const { outcome, image } = await publish(root, changes);
      expectOutcome(expected, outcome);
      assert.deepEqual(treeOf(place.root), image);
    }));
}

test('publishFile gives a file of any size its final name', () =>
  inRoot({ s: { c: OLD } }, async (root) => {
    const { outcome } = await publish(root, { to: ['n', 'm', 'd'] });
    expectOutcome('-', outcome);
    assertTree({ s: {}, n: fresh({ m: fresh({ d: OLD }) }) });
    const large = Buffer.alloc(3 * 2 ** 20, 'a piece');
    fs.writeFileSync(candidate, large);
    await publish(root, { sha256: hashOf(large).toUpperCase() });
    assert.deepEqual(fs.readFileSync(place.at(...TO)), large);
  }));

const s = { c: OLD };
const n = { d: OLD };
// What is on the disk and how finishPublish ends. It changes something in the first case only.
const FOUND = {
  'both names': ['published', { s, n: { d: linked } }, { s: {}, n }],
  'the candidate': ['candidate', { s, n: {} }],
  'the destination': ['published', { s: {}, n }],
  'the destination alone': ['published', { n }],
  'no name': ['nothing', { s: {}, n: {} }],
  'no directory': ['nothing', {}],
  'two files': ['exists', { s, n }],
  'a file and a symlink to it': ['exists', { s, n: { d: symlink('../s/c') } }],
  'three names': ['outside', { s, n: { d: linked, more: linked } }],
  'a candidate with another name': ['outside', { s, more: linked }],
  'a symlink': ['outside', { s: { c: symlink('x') } }],
  'one symlink with both names': ['outside', { s: { c: symlink('x') }, n: { d: linked } }],
  'a FIFO': ['outside', { n: { d: fifo() } }],
  'a symlink to the directory': ['outside', { n, s: symlink('n') }],
};

for (const [what, [expected, layout, after]] of Object.entries(FOUND)) {
  test(`finishPublish finds ${what}`, () =>
    inRoot(layout, async (root) => {
      const image = treeOf(place.root);
      const outcome = await outcomeOf(finishPublish(root, FROM, TO));
      if ('result' in outcome) assert.equal(outcome.result, expected);
      else expectOutcome(expected, outcome);
      if (after) assertTree(after);
      else assert.deepEqual(treeOf(place.root), image);
    }));
}

test('finishPublish refuses wrong names, and two paths to one entry', () =>
  inRoot({ s: { 'c\uFFFD': OLD, more: hardlink('c\uFFFD') } }, async (root) => {
    const image = treeOf(place.root);
    for (const one of [['s', 'c\uFFFD'], ['s', 'c\uD800'], [], ['s', '..'], ['s/c'], undefined]) {
      expectOutcome('outside', await outcomeOf(finishPublish(root, one, ['s', 'c\uDC00'])));
      expectOutcome('outside', await outcomeOf(finishPublish(root, ['s', 'c\uDC00'], one)));
    }
    assert.deepEqual(treeOf(place.root), image);
  }));

const PUBLISH = [
  ['openFile', FROM],
  ['publishFile', 'FILE', FROM, TO, { sha256: hashOf(OLD) }],
];
const FINISHING = ['fsyncSync n', 'unlinkSync s/c', 'fsyncSync s'];
const PUBLISHING = ['fsyncSync s/c', 'linkSync s/c', ...FINISHING];

for (let stopAt = 1; stopAt <= PUBLISHING.length + 1; ++stopAt) {
  const isLinked = stopAt > 2;

  test(`a publication that is killed before call ${stopAt} is finished`, () =>
    inRoot({ s, n: {} }, async (root) => {
      const printed = runCalls(PUBLISH, { STOP_AT: stopAt });
      assert.deepEqual(printed, PUBLISHING.slice(0, stopAt - 1));
      assert.equal(await finishPublish(root, FROM, TO), isLinked ? 'published' : 'candidate');
      assertTree(isLinked ? { s: {}, n } : { s, n: {} });
    }));

  test(`a publication in which call ${stopAt} fails is done or undone`, () =>
    inRoot({ s, n: {} }, () => {
      const isFailing = stopAt <= PUBLISHING.length;
      const printed = runCalls(PUBLISH, { STOP_AT: stopAt, FAIL_WITH: 'EIO' });
      assert.equal(printed.includes('Repository-local storage operation failed'), isFailing);
      assertTree(stopAt < PUBLISHING.length ? { s, n: {} } : { s: {}, n });
    }));
}

test('finishPublish flushes the new name before it removes the old one', () =>
  inRoot({ s, n: { d: linked } }, () => {
    assert.deepEqual(runCalls([['finishPublish', FROM, TO]], { STOP_AT: 99 }), FINISHING);
  }));

const temporary = (digit) => `.tarvek-12-3-${digit.repeat(32)}`;
const OLD_ONES = { [temporary('a')]: 'half', [temporary('b')]: '' };
const KEPT = {
  [temporary('c')]: 'young',
  [temporary('d')]: symlink(temporary('c')),
  [temporary('e')]: fifo(),
  [temporary('f')]: { g: '' },
  [`${temporary('a')}0`]: '',
  '.tarvek-12-3-0': '',
  loop: symlink('.'),
  twins: { [temporary('a')]: '', [temporary('b')]: hardlink(temporary('a')) },
};
const around = (leftovers) => ({ ...leftovers, ...KEPT, e: { ...leftovers, f: { ...leftovers } } });

test('removeLeftovers removes old temporary files at any depth and nothing else', () =>
  inRoot({ d: around(OLD_ONES) }, async (root) => {
    const sweep = (olderThan, ...names) => outcomeOf(removeLeftovers(root, names, { olderThan }));
    const files = Object.keys(treeOf(place.root)).filter((at) => !at.includes(temporary('d')));
    for (const at of files) fs.utimesSync(place.at(at), 1, 1);
    fs.utimesSync(place.at('d', temporary('c')), 1, Date.now() / 1000 - 50);
    for (const olderThan of [undefined, -1, Number.NaN, Number.POSITIVE_INFINITY, '0']) {
      expectOutcome('storage', await sweep(olderThan, 'd'));
    }
    expectOutcome('missing', await sweep(0, 'x'));
    expectOutcome('outside', await sweep(0, 'd', 'loop'));
    expectOutcome('outside', await sweep(0));
    const removed = expectOutcome('-', await sweep(60_000, 'd'));
    const places = ['d', 'd/e', 'd/e/f'];
    const expected = places.flatMap((at) => Object.keys(OLD_ONES).map((name) => `${at}/${name}`));
    assert.deepEqual(removed.sort(), expected.sort());
    assertTree({ d: around({}) });
    assert.deepEqual(await sweep(10_000, 'd'), { result: [`d/${temporary('c')}`] });
  }));
