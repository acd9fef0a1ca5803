'use strict';

const { TREE } = require('../support/layouts.js');

module.exports = {
  call: 'list f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call  a symlink  a hard link  special  a directory  a file   nothing  no parent
    list d/f  outside    outside      outside  -            outside  missing  missing`,
  scenarios: {
    'list leaf': {
      before: [TREE],
      result: ['s'],
      calls: `
        reach     NEAR leaf
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                             ! fails link: outside; once identity: outside; once link: -
        fstatat   NEAR leaf NOFOLLOW                    ! fails link identity: outside
        names     NEAR/leaf
        close     NEAR/leaf
        close     NEAR`,
    },
  },
};
