'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { expectCall } = require('../support/harness.js');
const { BYTES, fresh } = require('../support/layouts.js');

const TEMPORARY = new RegExp(`^\\.tarvek-${process.pid}-([1-9]\\d*)-([0-9a-f]{32})$`);

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
  layout: { d: {} },
  special: {
    'temporary names with consecutive numbers and random digits': (ctx) => {
      const names = new Set();
      const look = () => {
        const [name] = fs.readdirSync(ctx.at('d'));
        if (name?.startsWith('.')) names.add(name);
      };
      for (let i = 0; i < 3; ++i) expectCall('-', ctx, 'write d/f NEW stage', look);
      const parts = Array.from(names, (name) => TEMPORARY.exec(name));
      const [first] = parts;
      const counts = parts.map(([, count]) => count - first[1]);
      assert.deepEqual(counts, [0, 1, 2]);
      const digits = new Set(parts.map(([, , random]) => random));
      assert.equal(digits.size, 3);
      assert.doesNotMatch(first[2], /^((.)\2)+$/);
    },
  },
};
