'use strict';

const { BYTES, OLD } = require('../support/layouts.js');

module.exports = {
  call: 'read f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call  a symlink  a hard link  special  a directory  a file  nothing  no parent
    read d/f  outside    outside      outside  outside      -       missing  missing`,
  scenarios: {
    'read leaf': {
      before: [OLD],
      result: BYTES.OLD,
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW                   ! links type: outside; smaller: less; negative: storage; once identity: outside; once smaller negative: -
        openat    NEAR leaf NONBLOCK|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                            ! links identity type: outside; smaller: less; negative: storage
        malloc    19                                   ! fails: storage
        read      NEAR/leaf 19                         ! zero: less
        close     NEAR/leaf
        close     NEAR`,
    },
  },
};
