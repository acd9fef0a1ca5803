'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const { OLD, THROWN, lines, symlink, hardlink, fifo, socket } = require('./support/harness.js');
const { withMode, thrownBy, thrower, expectThrown } = require('./support/harness.js');
const { expectCall, each, cases } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

// In the order of their UTF-8 bytes, which is not that of their UTF-16 units.
const SORTED = ['.hidden', '0', '10', '9', 'B', 'a', 'a0', 'b', 'é', 'ｚ', '😀'];
const SPECIAL = { file: '', hard: hardlink('file'), link: symlink('x'), p: fifo(), s: socket() };
const LAYOUT = { f: OLD, d: {}, special: { '.tarvek-1-1-0': '', dir: {}, ...SPECIAL } };

const TRUE = Array(9).fill(true);

cases('reading', LAYOUT, {
  'bytes of any length go in and come back whole': ({ handle }) => {
    const noStage = () => assert.fail('create called its stage');
    for (const size of [0, 1, 65535, 65536, 65537, 3_000_001]) {
      const bytes = crypto.randomBytes(size);
      tarvek.write(handle, ['d', 'w'], bytes);
      tarvek.create(handle, ['d', 'c'], bytes, noStage);
      for (const half of [bytes.subarray(0, size >> 1), bytes.subarray(size >> 1)]) {
        tarvek.append(handle, ['d', 'a'], 0, 0, half);
      }
      const captured = tarvek.capture(handle, [['d']]).slice(1);
      const read = ['a', 'c', 'w'].map((name) => tarvek.read(handle, ['d', name]));
      const files = tarvek.snapshot(handle, ['d']);
      const all = [...captured.map(({ body }) => body), ...read, ...Object.values(files)];
      assert.deepEqual(
        all.map((copy) => Buffer.isBuffer(copy) && copy.equals(bytes)),
        TRUE,
        size,
      );
      for (const name of ['a', 'c']) tarvek.remove(handle, ['d', name]);
    }
  },
  'names of any number come sorted by their bytes, each once': ({ handle, at }) => {
    assert.deepEqual(tarvek.list(handle, ['d']), []);
    for (const name of [...SORTED].reverse()) fs.writeFileSync(at('d', name), '');
    assert.deepEqual(tarvek.list(handle, ['d']), SORTED);
    const names = Array.from({ length: 2000 }, (_, i) => `${'n'.repeat(i % 200)}-${i}`);
    for (const name of names) fs.mkdirSync(at('special', 'dir', name));
    assert.deepEqual(tarvek.list(handle, ['special', 'dir']), names.sort());
  },
  'entries of every type are listed, and names that are not UTF-8': ({ handle, at }) => {
    assert.deepEqual(tarvek.list(handle, ['special']), Object.keys(LAYOUT.special));
    fs.writeFileSync(Buffer.concat([Buffer.from(at('d/')), Buffer.from([0xff, 0x80])]), '');
    assert.equal(tarvek.list(handle, ['d']).length, 1);
  },
});

const BAD = [symlink('../../f'), symlink('x'), hardlink('../../f'), fifo(), socket()];
const TREES = lines(`
  capture d   link     link     hardLink  special  special
  snapshot d  outside  outside  outside   outside  outside
  remove d    outside  outside  outside   -        -`);
const buried = ([call, ...outcomes]) =>
  BAD.map((x, i) => [`${call}: ${x}`, { f: OLD, d: { s: { x } } }, call, outcomes[i]]);

each('what must not be in a tree is found', TREES.flatMap(buried), (ctx, call, expected) =>
  expectCall(expected, ctx, call),
);

const MODES = { directory: withMode(0o1775, {}), empty: '', file: withMode(0o4751, OLD) };
const CAPTURED = { d: { e: {}, f: OLD }, e: {}, x: { 'y.txt': OLD }, modes: MODES };

cases('capture', CAPTURED, {
  'gives nine permission bits, and a body for files only': ({ handle }) => {
    const records = tarvek.capture(handle, [['modes']]).map(Object.entries);
    const entries = (path, type, mode) => Object.entries({ path, type, mode });
    assert.deepEqual(records, [
      entries('modes', 'directory', 0o755),
      entries('modes/directory', 'directory', 0o775),
      [...entries('modes/empty', 'file', 0o644), ['body', Buffer.alloc(0)]],
      [...entries('modes/file', 'file', 0o751), ['body', Buffer.from(OLD)]],
    ]);
  },
  'keeps the order of the paths, and lets a directory come twice, but no file': (ctx) => {
    const records = expectCall('-', ctx, 'capture x/y.txt e d e');
    const paths = records.map(({ path }) => path);
    assert.deepEqual(paths, ['x/y.txt', 'e', 'd', 'd/e', 'd/f', 'e']);
    expectCall('duplicate', ctx, 'capture d d/f');
    expectCall('duplicate', ctx, 'capture x/y.txt x/y.txt');
  },
});

const KEYS = ['10', '9', '__proto__', 'constructor', 's/a', 't', 'ｚ', '😀'];
const { create } = Object;

function snapshotWith(replacement, handle) {
  try {
    Object.create = replacement;
    return tarvek.snapshot(handle, ['d']);
  } finally {
    Object.create = create;
  }
}

const FILES = { d: { e: { e: {} }, s: { a: 's/a' } } };

cases('snapshot', FILES, {
  'sets a key for every file, in the order of bytes': ({ handle, at }) => {
    for (const key of KEYS) fs.writeFileSync(at('d', key), key);
    const order = [];
    const defineProperty = (...args) => order.push(args[1]) && Reflect.defineProperty(...args);
    const files = snapshotWith(() => new Proxy(create(null), { defineProperty }), handle);
    assert.deepEqual(order, KEYS);
    for (const key of KEYS) assert.equal(String(files[key]), key);
  },
  'fills what Object.create returns at the time': ({ handle }) => {
    const made = { a: 1 };
    const returned = snapshotWith(function (...args) {
      return this === Object && args.length === 1 && args[0] === null && made;
    }, handle);
    assert.equal(returned, made);
    assert.deepEqual(made, { a: 1, 's/a': Buffer.from('s/a') });
  },
  'fails as Object.create does, or is undefined when there is none': ({ handle }) => {
    for (const value of THROWN) {
      const outcome = thrownBy(() => snapshotWith(thrower(value), handle));
      expectThrown(value, outcome);
    }
    assert.equal(snapshotWith(undefined, handle), undefined);
  },
});
