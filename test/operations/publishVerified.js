'use strict';

const { OLD } = require('../support/layouts.js');

const O_PATH = 0o10000000;

module.exports = {
  call: 'publishVerified fd:f f g OLD',
  takes: 'handle descriptor segments segments body',
  refuses: 'outside handle descriptor segments body',
  kinds: `
    the call                              a symlink  a hard link  special    a directory  a file     nothing    no parent
    publishVerified fd:file d/f free OLD  candidate  candidate    candidate  candidate    candidate  candidate  missing
    publishVerified fd:file file d/f OLD  exists     exists       exists     exists       exists     -          -`,
  outcomes: `
    exists     publishVerified fd:f f f OLD
    missing    publishVerified fd:f nothing/f never/x OLD
    candidate  publishVerified fd:twin f made/x OLD  publishVerified fd:a f made/x OLD
    candidate  publishVerified fd:f:r+ f made/x OLD  publishVerified fd:f:a f made/x OLD
    candidate  publishVerified 99999 f made/x OLD  publishVerified NaN f made/x OLD
    candidate  publishVerified fd:f:${O_PATH} f made/x OLD`,
  scenarios: {
    'publishVerified fd:leaf leaf other OLD': {
      before: [OLD],
      after: [undefined, OLD],
      makes: true,
      calls: `
        walk      NEAR                              ! bytes: storage; close: storage
        MAKE      FAR                               ! NEAR/: outside; bytes: storage
        hook      pre-effect leaf #NEAR             ! NEAR/ FAR/ close: outside; bytes: storage
        prove     NEAR
        hook      pre-effect other #FAR             ! NEAR/ FAR/ close: outside; bytes: storage
        prove     FAR
        hook      publish-before-validation leaf 0  ! NEAR/ FAR/ close: outside; bytes: storage
        prove     NEAR
        prove     FAR
        fcntl     NEAR/leaf 3                       ! fails: candidate
        fstat     NEAR/leaf                         ! fails type names size: candidate; once mode identity times: candidate
        fstatat   NEAR leaf NOFOLLOW                ! fails all: candidate; once mode size times: -
        pread     NEAR/leaf 19 0                    ! fails zero: candidate
        pread     NEAR/leaf 1 19                    ! fails: candidate
        fstat     NEAR/leaf                         ! fails all: candidate
        fstatat   NEAR leaf NOFOLLOW                ! fails all: candidate
        linkat    NEAR leaf FAR other 0             ! EEXIST: exists
        fstatat   FAR other NOFOLLOW                ! fails identity type: storage
        unlinkat  NEAR leaf 0
        fsync     FAR
        fsync     NEAR
        close     FAR
        close     NEAR`,
    },
  },
};
