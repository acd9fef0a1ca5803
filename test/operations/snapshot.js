'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { expectPassedOn, thrownBy } = require('../support/harness.js');
const { TREE } = require('../support/layouts.js');
const tarvek = require('../support/tarvek.js');

// In the order of their bytes. The file of each contains its name.
const KEYS = ['10', '9', '__proto__', 'constructor', 's/a', 't', 'ｚ', '😀'];

// Takes a snapshot of d while Object.create is this function.
function snapshotWith(replacement, { handle }) {
  const { create } = Object;
  try {
    Object.create = replacement;
    return tarvek.snapshot(handle, ['d']);
  } finally {
    Object.create = create;
  }
}

module.exports = {
  call: 'snapshot f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call      a symlink  a hard link  special  a directory  a file   nothing  no parent
    snapshot d/f  outside    outside      outside  -            outside  missing  missing`,
  scenarios: {
    'snapshot leaf': {
      before: [TREE],
      result: Object.assign(Object.create(null), { 's/g': Buffer.from('two') }),
      calls: `
        reach     NEAR leaf
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                                ! fails link: outside; once identity: outside; once link: -
        fstatat   NEAR leaf NOFOLLOW                       ! fails link identity: outside
        names     NEAR/leaf
        fstatat   NEAR/leaf s NOFOLLOW                     ! type: outside; once identity: outside
        openat    NEAR/leaf s DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf/s                              ! fails identity: outside
        names     NEAR/leaf/s
        fstatat   NEAR/leaf/s g NOFOLLOW                   ! links type: outside; smaller: less; negative: storage; once identity: outside; once smaller negative: -
        openat    NEAR/leaf/s g NONBLOCK|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf/s/g                            ! fails identity: outside; smaller: less; negative: storage
        malloc    3                                        ! fails: storage
        read      NEAR/leaf/s/g 3                          ! zero: less
        close     NEAR/leaf/s/g
        close     NEAR/leaf/s
        close     NEAR/leaf
        close     NEAR`,
    },
  },
  layout: { d: { e: { e: {} }, s: { a: 's/a' } } },
  special: {
    'a key for every file, in the order of bytes, on what Object.create returns': (ctx) => {
      for (const key of KEYS) fs.writeFileSync(ctx.at('d', key), key);
      const defined = [];
      const made = new Proxy(Object.create(null), {
        defineProperty(_, key, { value }) {
          defined.push([key, String(value)]);
          return true;
        },
      });
      const result = snapshotWith(() => made, ctx);
      assert.equal(result, made);
      const expected = KEYS.map((key) => [key, key]);
      assert.deepEqual(defined, expected);
    },
    'what Object.create throws is passed on': (ctx) =>
      expectPassedOn((thrower) => thrownBy(() => snapshotWith(thrower, ctx))),
    'what a setter throws is passed on, with files left to set': (ctx) => {
      fs.writeFileSync(ctx.at('d', 'z'), '');
      expectPassedOn((thrower) => {
        const made = new Proxy({}, { defineProperty: thrower, set: thrower });
        return thrownBy(() => snapshotWith(() => made, ctx));
      });
    },
    'undefined without Object.create': (ctx) =>
      assert.equal(snapshotWith(undefined, ctx), undefined),
  },
};
