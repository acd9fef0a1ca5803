'use strict';

const { checkOpened } = require('../support/harness.js');
const { TREE } = require('../support/layouts.js');

module.exports = {
  call: 'openRelative f',
  takes: 'handle segments',
  refuses: 'outside segments closed handle',
  kinds: `
    the call          a symlink  a hard link  special  a directory  a file   nothing  no parent
    openRelative d/f  outside    outside      outside  -            outside  missing  missing`,
  scenarios: {
    'openRelative leaf': {
      before: [TREE],
      check: checkOpened,
      calls: `
        walk      NEAR relative-directory-open
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                             ! fails type: outside; identity: other; once identity: outside; once type: -
        hook      relative-directory-open leaf #NEAR    ! NEAR/ NEAR/leaf/ close: outside
        fstatat   NEAR leaf NOFOLLOW                    ! fails identity type: outside
        close     NEAR
        prove     NEAR/leaf
        fstat     NEAR/leaf                             ! fails type: outside; identity: other
        dup       NEAR/leaf
        hook      external-create "" 0
        close     NEAR/leaf`,
    },
  },
};
