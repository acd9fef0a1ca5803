'use strict';

// Roots of tarvek/promises, on the layouts and with the outcomes of harness.js.

const assert = require('node:assert/strict');
const { close, openRoot } = require('../../promises/index.js');
const { descriptors, enterSandbox, leaveSandbox, place } = require('./harness.js');

// Two threads show what more would show, and start sooner. This root keeps them running between the
// tests. It does not keep the process running.
process.env.UV_THREADPOOL_SIZE = '2';
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
  const open = descriptors(ctx.openBefore).filter((entry) => entry.includes(place.root));
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
