'use strict';

const assert = require('node:assert/strict');
const { thrownBy } = require('../support/harness.js');
const tarvek = require('../support/tarvek.js');

// Fires the hook at a, b and c.
const fire = ({ handle }) => tarvek.exists(handle, ['a', 'b', 'c']);

const REMOVING = [[], [undefined], [null]];
const REFUSED = [[42], ['f'], [{}]];

module.exports = {
  layout: { a: { b: {} } },
  special: {
    'any argument but a function removes the hook, and some are refused': (ctx) => {
      for (const args of [...REMOVING, ...REFUSED]) {
        tarvek.setTestHook(assert.fail);
        const { thrown } = thrownBy(() => tarvek.setTestHook(...args));
        const expected = REFUSED.includes(args) ? 'FILESYSTEM_FAILURE' : undefined;
        assert.equal(thrown?.code, expected, `with the arguments ${JSON.stringify(args)}`);
        fire(ctx);
      }
    },
    'the hook can be removed while it runs': (ctx) => {
      let fired = 0;
      tarvek.setTestHook(() => {
        fired += 1;
        tarvek.setTestHook();
      });
      fire(ctx);
      assert.equal(fired, 1, 'calls of the hook');
    },
  },
};
