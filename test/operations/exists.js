'use strict';

const assert = require('node:assert/strict');
const { OLD } = require('../support/layouts.js');
const tarvek = require('../support/tarvek.js');

module.exports = {
  call: 'exists f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call    a symlink  a hard link  special  a directory  a file  nothing  no parent
    exists d/f  outside    outside      -        -            -       -        -`,
  scenarios: {
    'exists leaf, a file': {
      before: [OLD],
      result: true,
      calls: `
        make      NEAR                   ! ENOENT: false
        hook      pre-effect leaf #NEAR  ! NEAR/ close: outside
        prove     NEAR
        fstatat   NEAR leaf NOFOLLOW     ! ENOENT: false; links link: outside
        close     NEAR`,
    },
  },
  layout: { f: OLD },
  special: {
    'not below a missing directory, although the root has that name': ({ handle }) =>
      assert.equal(tarvek.exists(handle, ['nothing', 'f']), false),
  },
};
