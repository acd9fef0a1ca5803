'use strict';

const { expectProgram } = require('../support/harness.js');
const { OLD } = require('../support/layouts.js');

module.exports = {
  call: 'removeIfEquals f OLD',
  takes: 'handle segments body',
  refuses: 'storage handle segments body',
  kinds: `
    the call                a symlink  a hard link  special  a directory  a file  nothing  no parent
    removeIfEquals d/f OLD  outside    outside      outside  outside      -       missing  missing`,
  scenarios: {
    'removeIfEquals leaf OLD': {
      before: [OLD],
      after: [],
      calls: `
        reach     NEAR leaf                            ! bytes: storage
        fstatat   NEAR leaf NOFOLLOW                   ! type names: outside; size: removal; once mode identity times: removal
        hook      remove-if-equals-open leaf #NEAR     ! NEAR/ close: outside; bytes: storage
        openat    NEAR leaf NONBLOCK|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                            ! fails all: removal
        pread     NEAR/leaf 19 0                       ! fails zero: removal
        pread     NEAR/leaf 1 19                       ! fails: removal
        fstat     NEAR/leaf                            ! fails all: removal
        hook      remove-if-equals-unlink leaf #NEAR   ! NEAR/ close: outside
        fstatat   NEAR leaf NOFOLLOW                   ! fails all: removal
        prove     NEAR
        unlinkat  NEAR leaf 0
        fsync     NEAR
        close     NEAR/leaf (deleted)
        close     NEAR`,
    },
  },
  special: {
    'a FIFO, put in place before the open, is refused at once': () => {
      const words = ['removeIfEquals f OLD', 'remove-if-equals-open', 'removal', 'removal'];
      expectProgram('fifo.js', ...words);
    },
  },
};
