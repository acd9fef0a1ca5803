'use strict';

// openFile, and read with a limit: the refusals of `read`, what an open file offers, and what needs /proc.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const test = require('node:test');
const promises = require('../promises/index.js');
const { openRecord } = require('../promises/walk.js');
const { inRoot, outcomeOf, runCalls } = require('./support/async-root.js');
const { place, expectOutcome } = require('./support/harness.js');
const { OLD, symlink, hardlink, fifo, socket } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const { openFile, read, close } = promises;

async function contentOf(...args) {
  const file = await openFile(...args);
  try {
    return await file.readFile();
  } finally {
    await file.close();
  }
}

// The content, or the failure as [code, message].
const told = ({ result, thrown }) => (thrown ? [thrown.code, thrown.message] : String(result));

async function expectSame(...args) {
  const [expected, actual] = [await outcomeOf(read(...args)), await outcomeOf(contentOf(...args))];
  assert.deepEqual(told(actual), told(expected));
}

const KINDS = {
  'a file': OLD,
  'an empty file': '',
  'a directory': {},
  'a symlink to a file': symlink('twin'),
  'a symlink to a directory': symlink('tree'),
  'a symlink to nothing': symlink('nowhere'),
  'a hard link': hardlink('twin'),
  'a FIFO': fifo(),
  'a socket': socket(),
  nothing: undefined,
};
const AROUND = { twin: OLD, tree: { f: OLD } };

for (const [kind, f] of Object.entries(KINDS)) {
  test(`openFile does with ${kind} what read does`, () =>
    inRoot({ ...AROUND, f, d: { ...AROUND, e: { ...AROUND, f } } }, async (root) => {
      await expectSame(root, ['f']);
      await expectSame(root, ['d', 'e', 'f']);
      await expectSame(root, ['f', 'f']);
    }));
}

const WRONG_PATHS = [
  ...[undefined, null, 'f', 1, [], [''], ['.'], ['..'], ['d', ''], ['..', 'f'], ['d/f'], ['d\\f']],
  ...[['f\0'], ['d', 1], [['f']], { 0: 'f', length: 1 }, ['x'.repeat(256)]],
];

test('openFile refuses wrong arguments as read does', () =>
  inRoot({ f: OLD, d: { f: OLD } }, async (root) => {
    for (const path of WRONG_PATHS) await expectSame(root, path);
    for (const wrong of [undefined, null, {}, 'root']) await expectSame(wrong, ['f']);
    for (const rest of [[], [['f'], undefined, 1], [['f'], null], [['f'], { mode: 1 }]]) {
      await expectSame(root, ...rest);
    }
    const closed = await promises.openRelative(root, ['d']);
    await close(closed);
    await expectSame(closed, ['f']);
    await expectSame(closed, []);
  }));

test('a name with a lone surrogate leads to the same file in both', () =>
  inRoot({ 'a\uFFFDb': OLD }, (root) => expectSame(root, ['a\uD800b'])));

test('an open file stays the same file, and reads like any other', () =>
  inRoot({ d: { f: OLD } }, async (root) => {
    const below = await promises.openRelative(root, ['d']);
    const file = await openFile(below, ['f']);
    await close(below);
    fs.renameSync(place.at('d', 'f'), place.at('g'));
    const { buffer } = await file.read(Buffer.alloc(5), 0, 5, 4);
    assert.equal(String(buffer), OLD.slice(4, 9));
    await promises.publishVerified(root, file.fd, ['g'], ['d', 'h'], Buffer.from(OLD));
    const [piece] = await file.createReadStream({ start: 0, autoClose: false }).toArray();
    assert.equal(String(piece), OLD);
    await file.close();
  }));

test('the walk must end in the directory of the handle, without a symlink on the way', () =>
  inRoot({ d: { e: {} }, other: { e: {} }, link: symlink('d') }, () => {
    for (const name of ['other', 'link']) {
      const handle = tarvek.openRoot(place.at('d', 'e'));
      assert.throws(() => openRecord(handle, place.at(name, 'e')), /./, name);
    }
  }));

test('read refuses a file that is larger than its limit', () =>
  inRoot({ f: OLD, empty: '' }, async (root) => {
    for (const maxBytes of [OLD.length, OLD.length + 0.5, Number.MAX_VALUE, undefined]) {
      assert.equal(String(await read(root, ['f'], { maxBytes })), OLD, maxBytes);
    }
    for (const maxBytes of [
      OLD.length - 1,
      0,
      -1,
      Number.NaN,
      Number.POSITIVE_INFINITY,
      '99',
      null,
    ]) {
      expectOutcome('storage', await outcomeOf(read(root, ['f'], { maxBytes })));
    }
    assert.equal((await read(root, ['empty'], { maxBytes: 0 })).length, 0);
    const large = Buffer.alloc(2 ** 20, 'x');
    fs.writeFileSync(place.at('large'), large);
    assert.deepEqual(await read(root, ['large'], { maxBytes: 2 ** 20 }), large);
  }));

const NEED_PROC = [
  ['openFile', ['f']],
  ['read', ['f'], { maxBytes: 100 }],
  ['finishPublish', ['f'], ['g']],
  ['removeLeftovers', ['d'], { olderThan: 0 }],
  ['publishFile', { fd: 0 }, ['f'], ['g'], { sha256: '0'.repeat(64) }],
];

for (const code of ['ENOENT', 'ERR_ACCESS_DENIED']) {
  test(`without /proc (${code}), only what needs it fails`, () =>
    inRoot({ f: OLD, d: {} }, () => {
      const printed = runCalls([['read', ['f']], ...NEED_PROC], { DENY: code });
      assert.deepEqual(
        printed,
        NEED_PROC.map(() => 'Repository-local storage operation failed'),
      );
    }));
}
