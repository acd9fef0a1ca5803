'use strict';

const { fresh } = require('../support/layouts.js');

module.exports = {
  call: 'ensureDirectory f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call             a symlink  a hard link  special  a directory  a file   nothing  no parent
    ensureDirectory d/f  outside    outside      outside  -            outside  -        -`,
  scenarios: {
    'ensureDirectory leaf, nothing': {
      after: [fresh({})],
      makes: true,
      calls: `
        prepare   NEAR leaf
        fstatat   NEAR leaf NOFOLLOW = ENOENT  ! ENOENT: -
        mkdirat   NEAR leaf 0700
        fsync     NEAR
        close     NEAR`,
    },
  },
};
