'use strict';

// The bytes, names and modes that the operations read, write and compare.

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const { OLD, fifo, socket, withMode } = require('./support/harness.js');
const { assertTree, thrownBy, expectPassedOn } = require('./support/harness.js');
const { expectOutcome, expectCall, each, cases } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

const BLOCK = 65536;
// In the order of their UTF-8 bytes, which is not that of their UTF-16 units.
const SORTED = '.hidden .tarvek-1-1-0 0 10 9 B a a0 aé b é ｚ 😀'.split(' ');
const LAYOUT = { d: {}, special: { dir: {}, f: '', p: fifo(), s: socket() } };
const MANY = Array.from({ length: 2000 }, (_, i) => `${'n'.repeat(i % 200)}-${i}`);

// Bytes that differ a little from these: one more, one less, or another one at an edge of a block.
function unlike(bytes) {
  const positions = [0, BLOCK - 1, BLOCK, bytes.length - 1].filter((at) => bytes[at] !== undefined);
  const others = positions.map((at) => Buffer.from(bytes).fill(bytes[at] ^ 1, at, at + 1));
  if (bytes.length > 0) others.push(bytes.subarray(1));
  return [...others, Buffer.concat([bytes, Buffer.from('x')])];
}

cases('reading and comparing', LAYOUT, {
  'bytes of any length come back unchanged, and a small difference is detected': (ctx) => {
    const { handle } = ctx;
    for (const size of [0, 1, BLOCK - 1, BLOCK, BLOCK + 1, 3_000_001]) {
      const bytes = crypto.randomBytes(size);
      tarvek.write(handle, ['d', 'w'], bytes);
      tarvek.create(handle, ['d', 'c'], bytes, () => assert.fail('create called its stage'));
      for (const half of [bytes.subarray(0, size >> 1), bytes.subarray(size >> 1)]) {
        tarvek.append(handle, ['d', 'a'], 0, 0, half);
      }
      const captured = tarvek.capture(handle, [['d']]).slice(1);
      const read = ['a', 'c', 'w'].map((name) => tarvek.read(handle, ['d', name]));
      const files = tarvek.snapshot(handle, ['d']);
      const all = [...captured.map(({ body }) => body), ...read, ...Object.values(files)];
      const same = all.map((copy) => Buffer.isBuffer(copy) && copy.equals(bytes));
      assert.deepEqual(same, Array(9).fill(true), `${size} bytes`);

      const fd = ctx.open(ctx.at('d', 'c'));
      const publish = (expected) => [handle, fd + 0.5, ['d', 'c'], ['d', 'p'], expected];
      const remove = (name, expected) => ['removeIfEquals', [handle, ['d', name], expected]];
      for (const other of unlike(bytes)) {
        expectCall('removal', ctx, remove('a', other));
        expectCall('candidate', ctx, ['publishVerified', publish(other)]);
      }
      expectCall('-', ctx, ['publishVerified', publish(bytes)]);
      assert.equal(fs.readSync(fd, Buffer.alloc(size + 1)), size, 'the offset did not move');
      for (const name of ['a', 'p']) expectCall('-', ctx, remove(name, bytes));
    }
  },
  'list returns names of any number and type, sorted by their bytes': ({ handle, at }) => {
    assert.deepEqual(tarvek.list(handle, ['special']), Object.keys(LAYOUT.special));
    for (const name of MANY) fs.mkdirSync(at('special', 'dir', name));
    assert.deepEqual(tarvek.list(handle, ['special', 'dir']), [...MANY].sort());
    for (const name of [...SORTED].reverse()) fs.writeFileSync(at('d', name), '');
    assert.deepEqual(tarvek.list(handle, ['d']), SORTED);
    fs.writeFileSync(Buffer.concat([Buffer.from(at('d/')), Buffer.from([0xff, 0x80])]), '');
    assert.equal(tarvek.list(handle, ['d']).length, SORTED.length + 1, 'a name that is not UTF-8');
    for (const name of ['d', 'special']) tarvek.remove(handle, [name]);
    assertTree({});
  },
});

const MODES = { directory: withMode(0o1775, {}), empty: '', file: withMode(0o4751, OLD) };
const CAPTURED = { d: { e: {}, f: OLD }, e: {}, x: { 'y.txt': OLD }, modes: MODES, many: {} };

cases('capture', CAPTURED, {
  'returns nine permission bits, and a body for files only': ({ handle }) => {
    const records = tarvek.capture(handle, [['modes']]);
    const texts = records.map((record) => Object.entries(record).join(' '));
    assert.deepEqual(texts, [
      `path,modes type,directory mode,${0o755}`,
      `path,modes/directory type,directory mode,${0o775}`,
      `path,modes/empty type,file mode,${0o644} body,`,
      `path,modes/file type,file mode,${0o751} body,${OLD}`,
    ]);
  },
  'keeps the order of the paths, and accepts a directory twice': (ctx) => {
    const paths = expectCall('-', ctx, 'capture x/y.txt e d e').map(({ path }) => path);
    assert.deepEqual(paths, ['x/y.txt', 'e', 'd', 'd/e', 'd/f', 'e']);
  },
  'detects any file that it meets twice among many': ({ handle, at }) => {
    // Inode numbers with gaps collide in the table of identities. Consecutive ones do not.
    for (const name of MANY) fs.writeFileSync(at('many', name), '');
    const kept = MANY.filter((_, i) => (i * i) % 101 < 10);
    for (const name of MANY) if (!kept.includes(name)) fs.unlinkSync(at('many', name));
    assert.equal(tarvek.capture(handle, [['many']]).length, 1 + kept.length);
    for (const name of kept) {
      const capture = () => tarvek.capture(handle, [['many'], ['many', name]]);
      expectOutcome('duplicate', thrownBy(capture));
    }
  },
});

const KEYS = ['10', '9', '__proto__', 'constructor', 's/a', 't', 'ｚ', '😀'];
const FILES = { d: { e: { e: {} }, s: { a: 's/a' } } };

function snapshotWith(replacement, handle) {
  const { create } = Object;
  try {
    Object.create = replacement;
    return tarvek.snapshot(handle, ['d']);
  } finally {
    Object.create = create;
  }
}

cases('snapshot', FILES, {
  'sets a key for every file, in the order of bytes, on what Object.create returns': (ctx) => {
    for (const key of KEYS) fs.writeFileSync(ctx.at('d', key), key);
    const order = [];
    const defineProperty = (...args) => order.push(args[1]) && Reflect.defineProperty(...args);
    const made = new Proxy(Object.create(null), { defineProperty });
    const replacement = function (...args) {
      return this === Object && args.length === 1 && args[0] === null && made;
    };
    assert.equal(snapshotWith(replacement, ctx.handle), made);
    assert.deepEqual(order, KEYS);
    for (const key of KEYS) assert.equal(String(made[key]), key);
  },
  'throws what Object.create or a setter throws; is undefined without Object.create': (ctx) => {
    fs.writeFileSync(ctx.at('d', 'z'), 'another file, after the one whose setter throws');
    for (const wrap of [(act) => act, (set) => () => new Proxy({}, { defineProperty: set, set })]) {
      expectPassedOn((thrower) => thrownBy(() => snapshotWith(wrap(thrower), ctx.handle)));
    }
    assert.equal(snapshotWith(undefined, ctx.handle), undefined);
  },
});

const TEMPORARY = new RegExp(`^\\.tarvek-${process.pid}-([1-9]\\d*)-([0-9a-f]{32})$`);

const EMPTY = { d: {} };

cases('write', EMPTY, {
  'numbers its temporary files one by one, and adds random digits': (ctx) => {
    const names = [];
    const look = () => names.push(fs.readdirSync(ctx.at('d'))[0]);
    for (let i = 0; i < 3; ++i) expectCall('-', ctx, 'write d/f NEW stage', look);
    const parts = [...new Set(names)].map((name) => TEMPORARY.exec(name)).filter(Boolean);
    const counts = parts.map(([, count]) => count - parts[0][1]);
    assert.deepEqual(counts, [0, 1, 2]);
    assert.equal(new Set(parts.map(([, , random]) => random)).size, 3);
    assert.doesNotMatch(parts[0][2], /^((.)\2)+$/);
  },
});

// How many of five bytes are written if the hook at "append-write" returns one of these values.
const RETURNED = [
  [5, [5, 6, 1e9, 2 ** 32 - 1, 2 ** 32 + 7, -1, undefined, null, '2', true, {}, [1], 2n]],
  [4, [4, 4.999]],
  [2, [2, 2.9, 2 ** 32 + 2, 2 - 2 ** 32]],
  [0, [0, -0, 0.9, NaN, Infinity, -Infinity, 2 ** 32]],
].flatMap(([count, values]) => values.map((value) => [`${value}`, { f: OLD }, count, value]));

each('append flushes what its hook allows, then fails if short', RETURNED, (ctx, count, value) => {
  const fired = [];
  const hook = ({ point }) => fired.push(point) && (point === 'append-write' ? value : 1);
  const call = ['append', [ctx.handle, ['f'], 0, 0, Buffer.from('abcde')]];
  expectCall(count === 5 ? '-' : 'storage', ctx, call, hook);
  assertTree({ f: OLD + 'abcde'.slice(0, count) });
  assert.equal(fired.at(-1), count === 0 ? 'append-write' : 'append-directory-fsync');
});
