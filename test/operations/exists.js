'use strict';

const { OLD } = require('../support/layouts.js');

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
};
