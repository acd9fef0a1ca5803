'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { OLD, BYTES, lines, assertTree, targetOf } = require('./support/harness.js');
const { expectCall, each, cases } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

const PATH = ['d', 'f'];
const LAYOUT = { d: { f: OLD } };
const TEMPORARY = new RegExp(`/\\.tarvek-${process.pid}-([1-9]\\d*)-([0-9a-f]{32})$`);
const isOpen = (at) => fs.readdirSync('/proc/self/fd').some((fd) => targetOf(fd) === at);

// What a write shows at each of its stages: the bytes under the name, the temporary file, its bytes
// and mode, and whether it is open.
function writeObserved({ handle, at }) {
  const seen = [];
  const observe = function (...args) {
    assert.deepEqual([this === globalThis, args.length], [true, 1]);
    const name = fs.readdirSync(at('d')).find((entry) => entry !== 'f');
    const temporary = name && at('d', name);
    const bytes = name && fs.readFileSync(temporary, 'utf8');
    const mode = name && fs.statSync(temporary).mode & 0o7777;
    seen.push([
      fs.readFileSync(at(...PATH), 'utf8'),
      temporary,
      bytes,
      mode,
      name && isOpen(temporary),
    ]);
  };
  assert.equal(tarvek.write(handle, PATH, BYTES.NEW, observe), undefined);
  return seen;
}

cases('write', LAYOUT, {
  'keeps the old bytes until it renames a whole temporary file over them': (ctx) => {
    const seen = writeObserved(ctx);
    const early = [OLD, seen[0][1], String(BYTES.NEW), 0o600];
    const late = [String(BYTES.NEW), undefined, undefined, undefined, undefined];
    assert.deepEqual(seen, [[...early, true], [...early, true], [...early, false], late, late]);
  },
  'counts its temporary names up by one and draws the rest at random': (ctx) => {
    const names = [0, 1, 2].map(() => TEMPORARY.exec(writeObserved(ctx)[0][1]));
    assert.deepEqual(
      names.map(([, count]) => count - names[0][1]),
      [0, 1, 2],
    );
    assert.equal(new Set(names.map(([, , random]) => random)).size, 3);
    assert.doesNotMatch(names[0][2], /^((.)\2)+$/);
  },
});

const TEN = '0123456789';
const APPENDED = { f: TEN };
const append = ({ handle }, sizes, bytes) => ['append', [handle, ['f'], ...sizes, bytes]];

// What comes of an expected and a minimum size.
const SIZES = lines(`
  -        0,0  -0,0  4,0  10,0  10,10  10.9,0  -0.9,0  0,-0.9  4.9,4  5,4.9  5.2,5.8  NaN,0  Infinity,0
  append   11,0  11.5,0  11,11  2147483648,0  4294967296,0  4294967306,0  9007199254740994,9  1e300,1e300
  storage  3,5  0,1  10,11  NaN,1  Infinity,1  -1,0  0,-1  -1,-1  -1,-2  -1e300,0  9007199254740992,1e300`);
const PAIRS = SIZES.flatMap(([expected, ...pairs]) =>
  pairs.map((pair) => [pair, APPENDED, expected, pair.split(',').map(Number)]),
);

each('append takes its sizes as whole numbers', PAIRS, (ctx, expected, sizes) => {
  expectCall(expected, ctx, append(ctx, sizes, BYTES.NEW));
  assertTree({ f: expected === '-' ? TEN + BYTES.NEW : TEN });
});

// How many of five bytes are written when the hook at "append-write" returns one of these.
const RETURNED = [
  [5, [5, 6, 1e9, 2 ** 32 - 1, 2 ** 32 + 7, -1, undefined, null, '2', true, {}, [1], 2n]],
  [4, [4, 4.999]],
  [2, [2, 2.9, 2 ** 32 + 2, 2 - 2 ** 32]],
  [0, [0, -0, 0.9, NaN, Infinity, -Infinity, 2 ** 32]],
].flatMap(([count, values]) => values.map((value) => [`${value}`, APPENDED, count, value]));

each('append flushes the part that its hook allows, then fails', RETURNED, (ctx, count, value) => {
  const fired = [];
  const hook = ({ point }) => fired.push(point) && (point === 'append-write' ? value : 1);
  const expected = count === 5 ? '-' : 'storage';
  expectCall(expected, ctx, append(ctx, [0, 0], Buffer.from('abcde')), hook);
  assertTree({ f: TEN + 'abcde'.slice(0, count) });
  assert.equal(fired.at(-1), count === 0 ? 'append-write' : 'append-directory-fsync');
});

cases('append', APPENDED, {
  'makes a file even where it then misses bytes': (ctx) =>
    expectCall('append', ctx, 'append x 1 0 NEW', {}, { 'root/x': '100600 1 ' }),
  'writes behind what others have appended meanwhile': (ctx) => {
    const act = () => void fs.appendFileSync(ctx.at('f'), '...');
    expectCall('-', ctx, 'append f 10 10 NEW', { 'append-write': act });
    assertTree({ f: `${TEN}...${BYTES.NEW}` });
  },
});
