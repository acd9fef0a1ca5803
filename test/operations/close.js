'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { expectCall } = require('../support/harness.js');
const tarvek = require('../support/tarvek.js');

module.exports = {
  call: 'close',
  takes: 'external',
  refuses: 'storage external',
  special: {
    'a second close does not close a descriptor that took the same number': (ctx) => {
      const handle = tarvek.openRoot(ctx.root);
      assert.equal(tarvek.close(handle), undefined);
      const reused = ctx.open(ctx.root);
      assert.equal(tarvek.close(handle), undefined);
      assert.equal(fs.fstatSync(reused).isDirectory(), true);
      expectCall('closed', ctx, ['rootIdentity', [handle]]);
    },
  },
};
