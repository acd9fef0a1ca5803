'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { identityOf } = require('../support/harness.js');
const tarvek = require('../support/tarvek.js');

module.exports = {
  call: 'rootIdentity',
  takes: 'handle',
  refuses: 'closed handle',
  layout: { a: {} },
  special: {
    'two BigInts, the same if another directory takes the name': ({ handle, root, base }) => {
      const identity = Object.entries(tarvek.rootIdentity(handle));
      assert.deepEqual(identity, Object.entries(identityOf(root)));
      fs.renameSync(root, `${base}/elsewhere`);
      fs.mkdirSync(root);
      assert.deepEqual(Object.entries(tarvek.rootIdentity(handle)), identity);
      assert.equal(tarvek.exists(handle, ['a']), true, 'the handle follows its directory');
    },
  },
};
