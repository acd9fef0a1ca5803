'use strict';

// Roots of tarvek/promises, on the layouts and with the outcomes of harness.js.

const assert = require('node:assert/strict');
const { close, openRoot } = require('../../promises/index.js');
const { descriptors, enterSandbox, leaveSandbox, place } = require('./harness.js');

// Keeps the threads running between the tests. They do not keep the process running.
const keeper = openRoot(place.base);

// Runs `body` on a root of tarvek/promises with this layout, and on a sandbox with it as `handle`.
// Fails if a descriptor stays open below the root.
async function inRoot(layout, body) {
  const ctx = enterSandbox(layout);
  const root = await openRoot(place.root);
  try {
    await body(root, { ...ctx, handle: root });
  } finally {
    await close(root);
    leaveSandbox(ctx);
  }
  const open = descriptors(ctx.before).filter((entry) => entry.includes(place.root));
  assert.deepEqual(open, [], 'descriptors are left open');
}

// As thrownBy of harness.js.
function outcomeOf(promise) {
  return promise.then(
    (result) => ({ result }),
    (thrown) => ({ thrown }),
  );
}

module.exports = { keeper, inRoot, outcomeOf };
