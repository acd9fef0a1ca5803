'use strict';

const { TREE, symlink } = require('../support/layouts.js');

module.exports = {
  call: 'ensureRelativeSymlink f g',
  takes: 'handle segments segments',
  refuses: 'outside handle segments',
  kinds: `
    the call                        a symlink  a hard link  special  a directory  a file   nothing  no parent
    ensureRelativeSymlink free d/f  outside    outside      outside  -            outside  missing  missing
    ensureRelativeSymlink d/f tree  entry      entry        entry    entry        entry    -        -`,
  // Only l/0 has the text for a, and l/1 for l/d.
  outcomes: `
    -        ensureRelativeSymlink l/0 a  ensureRelativeSymlink l/1 l/d
    entry    ensureRelativeSymlink l/2 a  ensureRelativeSymlink l/3 a  ensureRelativeSymlink l/4 a
    entry    ensureRelativeSymlink l/5 a  ensureRelativeSymlink l/6 a  ensureRelativeSymlink l/7 a
    entry    ensureRelativeSymlink l/8 l/d  ensureRelativeSymlink l/0 l/d
    missing  ensureRelativeSymlink never/x nothing
    outside  ensureRelativeSymlink never/x f`,
  scenarios: {
    'ensureRelativeSymlink other leaf': {
      before: [TREE],
      after: (link) => [TREE, symlink(link)],
      result: true,
      makes: true,
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW           ! type: outside
        close     NEAR
        prepare   FAR other
        fstatat   FAR other NOFOLLOW = ENOENT  ! ENOENT: -
        prove     FAR
        symlinkat LINK FAR other               ! EEXIST: entry
        fsync     FAR
        close     FAR`,
    },
    'ensureRelativeSymlink other leaf, itself': {
      before: (link) => [TREE, symlink(link)],
      result: false,
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW     ! type: outside
        close     NEAR
        prepare   FAR other
        fstatat   FAR other NOFOLLOW     ! ENOENT: -; special: entry
        readlinkat FAR other SIZE        ! fails short zero: entry
        close     FAR`,
    },
  },
};
