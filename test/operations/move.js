'use strict';

const { OLD } = require('../support/layouts.js');

module.exports = {
  call: 'move f g',
  takes: 'handle segments segments',
  refuses: 'outside handle segments',
  kinds: `
    the call       a symlink  a hard link  special  a directory  a file  nothing  no parent
    move d/f free  outside    outside      -        -            -       missing  missing
    move file d/f  outside    outside      exists   exists       exists  -        -`,
  outcomes: `
    exists   move f f  move a a
    storage  move a a/.../a
    missing  move nothing/f never/x  move nothing made/x
    outside  move f/f never/x`,
  scenarios: {
    'move leaf other, a file': {
      before: [OLD],
      after: [undefined, OLD],
      makes: true,
      calls: `
        walk      NEAR                         ! close: storage
        MAKE      FAR                          ! NEAR/: outside
        hook      pre-effect leaf #NEAR        ! NEAR/ FAR/ close: outside
        prove     NEAR
        hook      pre-effect other #FAR        ! FAR/ close: outside
        prove     FAR
        fstatat   NEAR leaf NOFOLLOW           ! links link: outside
        fstatat   FAR other NOFOLLOW = ENOENT  ! ENOENT: -
        renameat  NEAR leaf FAR other
        fsync     NEAR
        fsync     FAR
        close     FAR
        close     NEAR`,
    },
  },
};
