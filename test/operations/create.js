'use strict';

const { BYTES, fresh } = require('../support/layouts.js');

module.exports = {
  call: 'create f NEW stage',
  takes: 'handle segments body stage',
  refuses: 'outside handle segments storage stage body',
  kinds: `
    the call        a symlink  a hard link  special  a directory  a file  nothing  no parent
    create d/f NEW  outside    outside      exists   exists       exists  -        -`,
  scenarios: {
    'create leaf NEW, nothing': {
      after: [fresh(BYTES.NEW)],
      makes: true,
      calls: `
        prepare   NEAR leaf                                          ! bytes: storage
        fstatat   NEAR leaf NOFOLLOW = ENOENT                        ! ENOENT: -
        openat    NEAR leaf WRONLY|CREAT|EXCL|NOFOLLOW|CLOEXEC 0600  ! EEXIST: exists
        write     NEAR/leaf "the new bytes" 13                       ! zero: outside
        fsync     NEAR/leaf
        fsync     NEAR
        close     NEAR/leaf
        close     NEAR`,
    },
  },
};
