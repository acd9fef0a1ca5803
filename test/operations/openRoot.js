'use strict';

const { checkOpened } = require('../support/harness.js');

module.exports = {
  call: 'openRoot @',
  takes: 'path',
  refuses: 'outside path',
  outcomes: `
    outside  openRoot @f  openRoot @f/d  openRoot @l/0  openRoot @l/0/...  openRoot =/proc/self/fd
    missing  openRoot @nothing  openRoot @nothing/d
    -        openRoot @a  openRoot @a/...  openRoot @ünï  openRoot =/proc`,
  scenarios: {
    'openRoot @leaf': {
      before: [{}],
      check: checkOpened,
      calls: `
        open      / DIRECTORY|NOFOLLOW|CLOEXEC
        close     /
        openat    .. root DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     .                                     ! fails type: outside; once identity: outside; once type: -
        hook      root-ancestor-open root -1
        fstatat   .. root NOFOLLOW                      ! fails identity type: outside
        enter     NEAR root-ancestor-open
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                             ! fails type: outside; identity: other; once identity: outside; once type: -
        hook      root-ancestor-open leaf #NEAR         ! NEAR/ NEAR/leaf/: outside
        fstatat   NEAR leaf NOFOLLOW                    ! fails identity type: outside
        close     NEAR
        open      / DIRECTORY|NOFOLLOW|CLOEXEC
        dup       /                                     ! fails: outside
        close     /
        fstatat   .. root NOFOLLOW                      ! fails identity type: outside
        openat    .. root DIRECTORY|NOFOLLOW|CLOEXEC    ! fails: outside
        verify    NEAR/leaf
        close     NEAR/leaf
        fstat     NEAR/leaf                             ! fails type: outside; identity: other
        dup       NEAR/leaf
        hook      external-create "" 0
        close     /
        close     NEAR/leaf`,
    },
  },
};
