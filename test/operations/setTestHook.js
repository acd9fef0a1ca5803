'use strict';

const assert = require('node:assert/strict');
const { thrownBy } = require('../support/harness.js');
const { BYTES } = require('../support/layouts.js');
const tarvek = require('../support/tarvek.js');

// Fires the hook at a, b and c.
const fire = ({ handle }) => tarvek.exists(handle, ['a', 'b', 'c']);

const REMOVING = [[], [undefined], [null]];
const REFUSED = [[42], ['f'], [{}], [true], [Symbol('f')], [1n]];

module.exports = {
  layout: { a: { b: {} } },
  special: {
    'the hook and the stage get one argument, and the global object as this': (ctx) => {
      const calls = [];
      const callback = function (...args) {
        calls.push([this === globalThis, JSON.stringify(args)]);
      };
      assert.equal(tarvek.setTestHook(callback, 'ignored'), undefined);
      assert.equal(tarvek.write(ctx.handle, ['n'], BYTES.NEW, callback), undefined);
      assert.deepEqual(calls.slice(0, 2), [
        [true, '[{"point":"pre-effect","segment":"n","index":0}]'],
        [true, '["after-temp-write"]'],
      ]);
    },
    'any argument but a function removes the hook, and some are refused': (ctx) => {
      for (const args of [...REMOVING, ...REFUSED]) {
        tarvek.setTestHook(assert.fail);
        const { thrown } = thrownBy(() => tarvek.setTestHook(...args));
        assert.equal(thrown?.code, REFUSED.includes(args) ? 'FILESYSTEM_FAILURE' : undefined);
        fire(ctx);
      }
    },
    'the hook can be replaced and removed while it runs': (ctx) => {
      const fired = [];
      const second = () => {
        fired.push('second');
        tarvek.setTestHook();
      };
      const first = () => {
        fired.push('first');
        tarvek.setTestHook(second);
      };
      tarvek.setTestHook(first);
      fire(ctx);
      assert.deepEqual(fired, ['first', 'second']);
    },
  },
};
