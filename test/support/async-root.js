'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { close, openRoot } = require('../../promises/index.js');
const { place, descriptors } = require('./harness.js');
const { build } = require('./layouts.js');

// Keeps the threads running between the tests. They do not keep the process running.
const keeper = openRoot(place.base);

// Runs `body` on a root of tarvek/promises with this layout. Removes everything on disk afterwards.
// Fails if a descriptor stays open.
async function inRoot(layout, body) {
  await keeper;
  build(place.root, layout);
  const root = await openRoot(place.root);
  try {
    await body(root);
  } finally {
    await close(root);
    const open = descriptors().filter((entry) => entry.includes(place.root));
    for (const name of fs.readdirSync(place.base)) {
      fs.rmSync(path.join(place.base, name), { recursive: true });
    }
    assert.deepEqual(open, [], 'descriptors are left open');
  }
}

// As thrownBy of harness.js.
function outcomeOf(promise) {
  return promise.then(
    (result) => ({ result }),
    (thrown) => ({ thrown }),
  );
}

const program = (name) => path.join(__dirname, '..', 'programs', name);

// Runs programs/calls.js with these variables for programs/watch-fs.js. Returns the lines it printed.
function runCalls(calls, variables) {
  const env = { ...process.env, UV_THREADPOOL_SIZE: '1', ...variables };
  const command = [program('calls.js'), place.root, JSON.stringify(calls)];
  const { stdout } = spawnSync(process.execPath, command, { env });
  return String(stdout).replaceAll(`${place.root}/`, '').split('\n').filter(Boolean);
}

module.exports = { inRoot, outcomeOf, program, runCalls };
