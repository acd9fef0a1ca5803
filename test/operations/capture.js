'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { expectCall, expectOutcome, thrownBy } = require('../support/harness.js');
const { OLD, withMode } = require('../support/layouts.js');
const tarvek = require('../support/tarvek.js');

function checkCaptured(records, _, leaf) {
  assert.deepEqual(records, [
    { path: leaf, type: 'directory', mode: 0o755 },
    { path: `${leaf}/g`, type: 'file', mode: 0o644, body: Buffer.from('two') },
  ]);
}

// Inode numbers with gaps collide in the table of identities. Consecutive ones do not.
const isKept = (_, i) => (i * i) % 101 < 10;

module.exports = {
  call: 'capture f',
  takes: 'handle paths',
  refuses: 'outside handle paths',
  kinds: `
    the call     a symlink  a hard link  special  a directory  a file  nothing  no parent
    capture d/f  link       hardLink     special  -            -       missing  missing`,
  outcomes: `
    duplicate  capture a a/.../f  capture f f`,
  scenarios: {
    'capture leaf': {
      before: [{ g: 'two' }],
      check: checkCaptured,
      calls: `
        reach     NEAR leaf
        fstatat   NEAR leaf NOFOLLOW                       ! link: link; special: special; once mode identity names size times: replacedDirectory
        openat    NEAR leaf DIRECTORY|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf                                ! fails all: replacedDirectory
        names     NEAR/leaf
        fstatat   NEAR/leaf g NOFOLLOW                     ! names: hardLink; smaller: less; larger: changed; negative: replacedFile; link: link; special: special; once mode smaller larger identity times: replacedFile
        openat    NEAR/leaf g NONBLOCK|NOFOLLOW|CLOEXEC
        fstat     NEAR/leaf/g                              ! all: replacedFile
        read      NEAR/leaf/g 3                            ! zero: changed
        hook      capture-file-read NEAR/leaf/g 0          ! NEAR/ close: outside
        fstat     NEAR/leaf/g                              ! all: changed
        fstatat   NEAR/leaf g NOFOLLOW                     ! all: changed
        close     NEAR/leaf/g
        hook      capture-directory-read NEAR/leaf 0       ! NEAR/ close: outside
        fstat     NEAR/leaf                                ! all: changedDirectory
        fstatat   NEAR leaf NOFOLLOW                       ! all: changedDirectory
        close     NEAR/leaf
        prove     NEAR
        close     NEAR
        malloc    3                                        ! fails: storage`,
    },
  },
  layout: {
    d: { e: {}, f: OLD },
    modes: { directory: withMode(0o1775, {}), empty: '', file: withMode(0o4751, OLD) },
    many: {},
  },
  special: {
    'nine permission bits, and a body for files only': ({ handle }) => {
      const records = tarvek.capture(handle, [['modes']]);
      const texts = records.map((record) => Object.entries(record).join(' '));
      assert.deepEqual(texts, [
        `path,modes type,directory mode,${0o755}`,
        `path,modes/directory type,directory mode,${0o775}`,
        `path,modes/empty type,file mode,${0o644} body,`,
        `path,modes/file type,file mode,${0o751} body,${OLD}`,
      ]);
    },
    'the order of the paths, with a directory twice': (ctx) => {
      const paths = expectCall('-', ctx, 'capture many d many').map(({ path }) => path);
      assert.deepEqual(paths, ['many', 'd', 'd/e', 'd/f', 'many']);
    },
    'any file that it meets twice among many': ({ handle, at }) => {
      const names = Array.from({ length: 1000 }, (_, i) => `${i}`);
      for (const name of names) fs.writeFileSync(at('many', name), '');
      const kept = names.filter(isKept);
      const others = names.filter((name) => !kept.includes(name));
      for (const name of others) fs.unlinkSync(at('many', name));
      assert.equal(tarvek.capture(handle, [['many']]).length, 1 + kept.length);
      for (const name of kept) {
        const capture = () => tarvek.capture(handle, [['many'], ['many', name]]);
        expectOutcome('duplicate', thrownBy(capture));
      }
    },
  },
};
