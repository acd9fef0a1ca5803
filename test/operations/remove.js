'use strict';

const { OLD } = require('../support/layouts.js');

module.exports = {
  call: 'remove f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call    a symlink  a hard link  special  a directory  a file  nothing  no parent
    remove d/f  outside    outside      -        -            -       missing  missing`,
  scenarios: {
    'remove leaf, a file': {
      before: [OLD],
      after: [],
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW     ! links link: outside
        unlinkat  NEAR leaf 0
        fsync     NEAR
        close     NEAR`,
    },
    'remove leaf, a directory': {
      before: [{ g: 'two' }],
      after: [],
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW                    ! link: outside; special: storage
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        dup       NEAR/leaf                             ! fails: storage
        fdopendir NEAR/leaf
        readdir   NEAR/leaf
        fstatat   NEAR/leaf g NOFOLLOW                  ! links link: outside
        unlinkat  NEAR/leaf g 0
        readdir   NEAR/leaf
        closedir  NEAR/leaf
        fsync     NEAR/leaf
        unlinkat  NEAR leaf REMOVEDIR
        close     NEAR/leaf (deleted)
        fsync     NEAR
        close     NEAR`,
    },
  },
};
