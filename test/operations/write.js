'use strict';

const { BYTES, fresh } = require('../support/layouts.js');

module.exports = {
  call: 'write f NEW stage',
  takes: 'handle segments body stage',
  refuses: 'outside handle segments storage stage body',
  kinds: `
    the call       a symlink  a hard link  special  a directory  a file  nothing  no parent
    write d/f NEW  outside    outside      outside  outside      -       -        -`,
  scenarios: {
    'write leaf NEW stage, nothing': {
      after: [fresh(BYTES.NEW)],
      makes: true,
      calls: `
        prepare   NEAR leaf                                               ! bytes: storage
        fstatat   NEAR leaf NOFOLLOW = ENOENT                             ! ENOENT: -
        getrandom 16 0
        openat    NEAR .tarvek-* WRONLY|CREAT|EXCL|NOFOLLOW|CLOEXEC 0600
        write     NEAR/.tarvek-* "the new bytes" 13                       ! zero: outside
        stage     after-temp-write                                        ! NEAR/ close: outside
        fsync     NEAR/.tarvek-*
        stage     after-file-sync                                         ! NEAR/ close: outside
        close     NEAR/.tarvek-*
        stage     before-file-rename                                      ! NEAR/ close: outside
        prove     NEAR
        renameat  NEAR .tarvek-* NEAR leaf
        stage     after-file-rename
        fsync     NEAR
        stage     after-directory-sync
        close     NEAR`,
    },
  },
};
