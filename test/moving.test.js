'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { OLD, BYTES, lines, fifo, socket, build } = require('./support/harness.js');
const { assertTree, expectCall, cases } = require('./support/harness.js');

const LAYOUT = { f: OLD, d: { s: {} }, twin: OLD };
const REFUSED = lines(`
  exists     move f f
  exists     move d d
  storage    move d d/s/d
  missing    move nothing/f x/y/z
  outside    move f/f x/y/z
  missing    ensureRelativeSymlink x/y/z nothing
  outside    ensureRelativeSymlink x/y/z f
  missing    publishVerified fd:f nothing/f x/y/z OLD
  missing    move nothing x/y/z
  candidate  publishVerified fd:twin f x/y/z OLD
  candidate  publishVerified fd:d f x/y/z OLD
  candidate  publishVerified 99999 f x/y/z OLD
  exists     publishVerified fd:f f f OLD`);
const LINKS = lines(`
  l        d    d
  m        d/s  d/s
  d/l      d/s  ../d/s
  x/y/z    d    ../../d
  x/y/w/v  d/s  ../../../d/s`);

cases('move and ensureRelativeSymlink', LAYOUT, {
  'make the way to a destination once the way to the source is known, and keep it': (ctx) => {
    const made = REFUSED.map(([expected, call]) => {
      expectCall(expected, ctx, call);
      return fs.existsSync(ctx.at('x', 'y'));
    });
    assert.equal(made.indexOf(true), 8);
  },
  'the text of a link comes from the two paths alone, and is made once': (ctx) => {
    for (const [link, target, text] of LINKS) {
      const make = () => expectCall('-', ctx, `ensureRelativeSymlink ${link} ${target}`);
      assert.deepEqual([make(), make()], [true, false]);
      assert.equal(fs.readlinkSync(ctx.at(link)), text);
    }
  },
  'a link with any other text is refused': (ctx) => {
    for (const text of ['d/', './d', 'd/s', 'D', 'dx', 'x', ctx.at('d')]) {
      fs.symlinkSync(text, ctx.at('l'));
      expectCall('entry', ctx, 'ensureRelativeSymlink l d');
      fs.unlinkSync(ctx.at('l'));
    }
  },
  'the very link that appears at the last moment is taken': (ctx) => {
    const appear = ({ segment }) => void (segment === 'l' && fs.symlinkSync('d', ctx.at('l')));
    assert.equal(
      expectCall('-', ctx, 'ensureRelativeSymlink l d', { 'pre-effect': appear }),
      false,
    );
  },
});

const publish = (ctx, fd) => ['publishVerified', [ctx.handle, fd, ['f'], ['d', 'n'], BYTES.OLD]];
const O_PATH = 0o10000000;

cases('publishVerified', LAYOUT, {
  'takes a descriptor that is open for reading alone, and leaves it where it was': (ctx) => {
    const others = ['r+', 'a', O_PATH].map((flags) => ctx.open(ctx.at('f'), flags));
    for (const fd of [...others, NaN]) expectCall('candidate', ctx, publish(ctx, fd));
    const fd = ctx.open(ctx.at('f'));
    fs.readSync(fd, Buffer.alloc(3));
    expectCall('-', ctx, publish(ctx, fd + 0.5));
    const rest = Buffer.alloc(99);
    assert.equal(rest.toString('utf8', 0, fs.readSync(fd, rest)), OLD.slice(3));
    assertTree({ d: { s: {}, n: OLD }, twin: OLD });
  },
  'looks at the way to its destination again': (ctx) => {
    const swap = () => fs.renameSync(ctx.at('d'), ctx.at('away')) ?? fs.mkdirSync(ctx.at('d'));
    const call = publish(ctx, ctx.open(ctx.at('f')));
    expectCall('outside', ctx, call, { 'publish-before-validation': swap });
  },
});

const BLOCK = 65536;

// Bytes that are not quite these: too long, too short, or another one at the end of a block.
function unlike(bytes) {
  const positions = [0, BLOCK - 1, BLOCK, bytes.length - 1].filter((at) => bytes[at] !== undefined);
  const others = positions.map((at) => Buffer.from(bytes).fill('y', at, at + 1));
  if (bytes.length > 0) others.push(bytes.subarray(1));
  return [...others, Buffer.concat([bytes, Buffer.from('x')])];
}

const EMPTY = {};

cases('removal', EMPTY, {
  'takes a whole tree, however wide, with special entries': (ctx) => {
    const many = Object.fromEntries(Array.from({ length: 2000 }, (_, i) => [`n${i}`, '']));
    build(ctx.at('x'), { s: { t: { f: 'x', u: {} }, v: { w: {} } }, many, p: fifo(), q: socket() });
    expectCall('-', ctx, 'remove x');
    assertTree({});
  },
  'and publication compare every byte and the length': (ctx) => {
    for (const size of [0, 1, BLOCK - 1, BLOCK, BLOCK + 1, 3 * BLOCK]) {
      const bytes = Buffer.alloc(size, 'x');
      build(ctx.at('x'), bytes);
      const fd = ctx.open(ctx.at('x'));
      const publish = (expected) => ['publishVerified', [ctx.handle, fd, ['x'], ['n'], expected]];
      const remove = (name, expected) => ['removeIfEquals', [ctx.handle, [name], expected]];
      for (const other of unlike(bytes)) {
        expectCall('removal', ctx, remove('x', other));
        expectCall('candidate', ctx, publish(other));
      }
      expectCall('-', ctx, publish(bytes));
      expectCall('-', ctx, remove('n', bytes));
    }
    assertTree({});
  },
});
