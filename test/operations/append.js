'use strict';

const assert = require('node:assert/strict');
const { inspect } = require('node:util');
const { assertTree, expectCall, expectProgram } = require('../support/harness.js');
const { BYTES, OLD, fresh } = require('../support/layouts.js');

// An outcome, and the expected and the minimum sizes of calls that end so on a file of nineteen bytes.
const SIZES = `
  -        0 0  -0 0  4 0  19 0  19 19  19.9 0  -0.9 0  0 -0.9  4.9 4  5 4.9  5.2 5.8  NaN 0  Infinity 0
  append   20 0  20.5 0  20 20  2147483648 0  4294967296 0  4294967315 0  9007199254740994 9  1e300 1e300
  storage  3 5  0 1  19 20  NaN 1  Infinity 1  -1 0  0 -1  -1 -1  -1 -2  -1e300 0  9007199254740992 1e300`;

// How many of five bytes are written if the hook at "append-write" returns one of these values. What
// it returns at other points does not count.
const RETURNED = [
  [5, [undefined, '2', 2n, -1, 1e9, 2 ** 32 + 7]],
  [4, [4.999]],
  [2, [2 ** 32 + 2]],
  [0, [0.9, NaN, Infinity]],
];

function checkReturned(ctx, count, value) {
  const fired = [];
  const hook = ({ point }) => {
    fired.push(point);
    return point === 'append-write' ? value : 1;
  };
  const call = ['append', [ctx.handle, ['f'], 0, 0, Buffer.from('abcde')]];
  expectCall(count === 5 ? '-' : 'storage', ctx, call, hook);
  assertTree({ f: OLD + 'abcde'.slice(0, count) });
  // A short write is flushed before it is reported.
  assert.equal(fired.at(-1), count === 0 ? 'append-write' : 'append-directory-fsync');
}

const special = {
  'a FIFO, put in place before the open, is refused at once': () => {
    expectProgram('fifo.js', 'append f 0 0 NEW', 'append-leaf-open', 'outside', 'storage');
  },
};
for (const [count, values] of RETURNED) {
  for (const value of values) {
    const title = `${count} bytes of five if its hook returns ${inspect(value)}`;
    special[title] = (ctx) => checkReturned(ctx, count, value);
  }
}

module.exports = {
  call: 'append f 0 0 NEW',
  takes: 'handle segments size size body',
  refuses: 'storage handle segments size body',
  kinds: `
    the call            a symlink  a hard link  special  a directory  a file  nothing  no parent
    append d/f 0 0 NEW  outside    outside      outside  outside      -       -        -`,
  outcomes: SIZES.replace(/ {2}(\S+ \S+)/g, '  append f $1 NEW'),
  scenarios: {
    'append leaf 0 0 NEW, nothing': {
      after: [fresh(BYTES.NEW)],
      makes: true,
      calls: `
        prepare   NEAR leaf                                                     ! bytes: storage
        fstatat   NEAR leaf NOFOLLOW = ENOENT                                   ! ENOENT: -
        hook      append-leaf-open leaf #NEAR                                   ! bytes: storage
        openat    NEAR leaf WRONLY|CREAT|APPEND|NONBLOCK|NOFOLLOW|CLOEXEC 0600  ! ENOENT EINTR: -
        fstat     NEAR/leaf                                                     ! type names: outside; smaller negative: append; once identity: outside
        fstatat   NEAR leaf NOFOLLOW                                            ! identity type names: outside
        hook      append-write leaf #NEAR                                       ! bytes: storage
        write     NEAR/leaf "the new bytes" 13                                  ! short zero: storage
        hook      append-data-fsync leaf #NEAR
        fsync     NEAR/leaf
        hook      append-directory-fsync leaf #NEAR
        fsync     NEAR
        close     NEAR/leaf
        close     NEAR`,
    },
    'append leaf 19 4 NEW, a file': {
      before: [OLD],
      after: [OLD + BYTES.NEW],
      calls: `
        prepare   NEAR leaf                                                     ! bytes: storage
        fstatat   NEAR leaf NOFOLLOW                                            ! ENOENT: -; type names: outside; smaller negative: append; once identity: outside; once unlinked smaller negative: -
        hook      append-leaf-open leaf #NEAR                                   ! bytes: storage
        openat    NEAR leaf WRONLY|CREAT|APPEND|NONBLOCK|NOFOLLOW|CLOEXEC 0600  ! ENOENT EINTR: -
        fstat     NEAR/leaf                                                     ! identity type names: outside; smaller negative: append
        fstatat   NEAR leaf NOFOLLOW                                            ! identity type names: outside
        hook      append-write leaf #NEAR                                       ! bytes: storage
        write     NEAR/leaf "the new bytes" 13                                  ! short zero: storage
        hook      append-data-fsync leaf #NEAR
        fsync     NEAR/leaf
        hook      append-directory-fsync leaf #NEAR
        fsync     NEAR
        close     NEAR/leaf
        close     NEAR`,
    },
  },
  layout: { f: OLD },
  special,
};
