'use strict';

// What capture tells while it reads.

const assert = require('node:assert/strict');
const { AsyncLocalStorage } = require('node:async_hooks');
const test = require('node:test');
const { capture } = require('../promises/index.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { expectOutcome } = require('./support/harness.js');

const COUNT = 20_000;
const layout = { d: Object.fromEntries(Array.from({ length: COUNT }, (_, i) => [`f${i}`, ''])) };
const PATH = /^d(\/f\d+)?$/;

// Captures until there is something to tell: the machine may be fast.
async function told(root, tell) {
  for (;;) {
    let count = 0;
    const start = performance.now();
    const onProgress = (progress) => {
      ++count;
      tell(progress);
    };
    const outcome = await outcomeOf(capture(root, [['d']], { onProgress }));
    assert.ok(count <= (performance.now() - start) / 100, `${count} times`);
    if (count > 0) return outcome;
  }
}

test('capture tells how far it is, at most ten times a second, where it was called', () =>
  inRoot(layout, async (root) => {
    const storage = new AsyncLocalStorage();
    let last = 0;
    const onProgress = ({ files, directories, path, ...others }) => {
      assert.ok(files !== last && files <= COUNT && directories <= 1 && PATH.test(path), path);
      assert.deepEqual([others, storage.getStore()], [{}, 'mine']);
      last = files;
    };
    const records = expectOutcome('-', await storage.run('mine', told, root, onProgress));
    assert.equal(records.length, COUNT + 1);

    const mine = new Error('what onProgress throws');
    const thrower = () => {
      throw mine;
    };
    assert.deepEqual(await told(root, thrower), { thrown: mine });
    for (const wrong of [1, null, {}]) {
      expectOutcome('storage', await outcomeOf(capture(root, [['d']], { onProgress: wrong })));
    }
    assert.deepEqual(await capture(root, [['d']]), records);
  }));
