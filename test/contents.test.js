'use strict';

// The bytes and names that the operations read, write and compare.

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const test = require('node:test');
const { assertTree, expectOutcome, sandbox } = require('./support/harness.js');
const { table, thrownBy } = require('./support/harness.js');
const { BYTES, fresh } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const BLOCK = 65536;
// The larger sizes are beyond every limit at which an operation could do something else.
const SIZES = [0, 1, 2048, 2049, BLOCK - 1, BLOCK, BLOCK + 1, 3_000_001, (16 << 20) + 1];
const sizes = SIZES.map((size) => [`${size} bytes`, size]);

table('bytes come back unchanged', sizes, (size) => {
  sandbox({ d: { w: 'replaced' } }, ({ handle, at }) => {
    const bytes = crypto.randomBytes(size);
    tarvek.write(handle, ['d', 'w'], bytes);
    tarvek.create(handle, ['d', 'c'], bytes, () => assert.fail('create called its stage'));
    tarvek.append(handle, ['d', 'a'], 0, 0, bytes);
    for (const name of ['a', 'c', 'w']) {
      assert.ok(fs.readFileSync(at('d', name)).equals(bytes), `the bytes in ${name}`);
    }
    const captured = tarvek.capture(handle, [['d']]).slice(1);
    const copies = [
      ...captured.map(({ body }) => body),
      ...Object.values(tarvek.snapshot(handle, ['d'])),
      tarvek.read(handle, ['d', 'a']),
    ];
    assert.equal(copies.length, 7, 'three each from capture and snapshot, one from read');
    for (const copy of copies) assert.ok(Buffer.isBuffer(copy) && copy.equals(bytes), 'a Buffer');
  });
});

// Bytes that differ a little from these: another one at an edge of a block, one less, or one more.
function unlike(bytes) {
  const positions = [0, BLOCK - 1, BLOCK, bytes.length - 1].filter((at) => bytes[at] !== undefined);
  const others = positions.map((at) => Buffer.from(bytes).fill(bytes[at] ^ 1, at, at + 1));
  if (bytes.length > 0) others.push(bytes.subarray(1));
  others.push(Buffer.concat([bytes, Buffer.from('x')]));
  return others;
}

table('a small difference is detected', sizes, (size) => {
  const bytes = crypto.randomBytes(size);
  sandbox({ d: { a: bytes, c: bytes } }, ({ handle, at, open }) => {
    const fd = open(at('d', 'c'));
    // A fraction of the number of a descriptor is cut off.
    const publish = (expected) =>
      thrownBy(() => tarvek.publishVerified(handle, fd + 0.5, ['d', 'c'], ['d', 'p'], expected));
    const remove = (name, expected) =>
      thrownBy(() => tarvek.removeIfEquals(handle, ['d', name], expected));
    for (const other of unlike(bytes)) {
      expectOutcome('removal', remove('a', other));
      expectOutcome('candidate', publish(other));
    }
    expectOutcome('-', publish(bytes));
    assert.equal(fs.readSync(fd, Buffer.alloc(size + 1)), size, 'the offset did not move');
    for (const name of ['a', 'p']) expectOutcome('-', remove(name, bytes));
    assertTree({ d: {} });
  });
});

const RAW = new Uint8Array([0, 1, 2, 253, 254, 255]);
const VIEWS = [
  ['a part of a Buffer', Buffer.from(RAW).subarray(2, 5)],
  ['a part of an array', RAW.subarray(1, 4)],
  ['a DataView', new DataView(RAW.buffer, 3, 2)],
];

table('bytes are those in the range of a view only', VIEWS, (view) => {
  sandbox({}, ({ handle }) => {
    const bytes = Buffer.from(view.buffer, view.byteOffset, view.byteLength);
    tarvek.write(handle, ['n'], view);
    assert.deepEqual(tarvek.read(handle, ['n']), bytes);
    tarvek.append(handle, ['n'], 0, 0, view);
    tarvek.removeIfEquals(handle, ['n'], new Uint8Array(Buffer.concat([bytes, bytes])));
    assertTree({});
  });
});

const NAMES = [
  ...'... .hidden -rf * ünï 語 😀 0 __proto__ constructor'.split(' '),
  ...[' ', '\n', '\x7f', 'é'.repeat(127), `${'x'.repeat(250)}é`, '😀'.repeat(63)],
  ...[251, 252, 255].map((length) => 'x'.repeat(length)),
];
const names = [...NAMES, 'a\ufffdb'].map((name) => [JSON.stringify(name), name, name]);
names.push(['a lone surrogate, which becomes U+FFFD', 'a\udc00b', 'a\ufffdb']);

table('an unusual name is accepted, byte for byte', names, (name, written) => {
  sandbox({}, ({ handle }) => {
    tarvek.create(handle, ['d', name], BYTES.NEW);
    assertTree({ d: fresh({ [written]: fresh(BYTES.NEW) }) });
    assert.deepEqual(tarvek.read(handle, ['d', written]), BYTES.NEW);
  });
});

const SHORT = '.hidden .tarvek-1-1-0 0 10 9 B a a0 aé b é ｚ 😀'.split(' ');
const MANY = Array.from({ length: 2000 }, (_, i) => `${'n'.repeat(i % 200)}-${i}`);

test('list returns all names, sorted by their bytes', () => {
  const written = [...SHORT, ...MANY];
  // The order of their UTF-16 units is another one.
  const sorted = written.map((name) => Buffer.from(name)).sort(Buffer.compare);
  const layout = Object.fromEntries(written.map((name) => [name, '']));
  sandbox({ d: layout }, ({ handle, at }) => {
    assert.deepEqual(tarvek.list(handle, ['d']), sorted.map(String));
    fs.writeFileSync(Buffer.concat([Buffer.from(at('d/')), Buffer.from([0xff, 0x80])]), '');
    const { length } = tarvek.list(handle, ['d']);
    assert.equal(length, sorted.length + 1, 'a name that is not UTF-8');
    tarvek.remove(handle, ['d']);
    assertTree({});
  });
});
