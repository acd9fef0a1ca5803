'use strict';

// Closes standard input, and lets the module open its descriptors with the number 0.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { assertTree, sandbox } = require('../support/harness.js');
const { OLD, BYTES } = require('../support/layouts.js');
const tarvek = require('../support/tarvek.js');

fs.closeSync(0);
sandbox({ d: { f: OLD } }, ({ handle, at, open }) => {
  const inner = tarvek.openRelative(handle, ['d']);
  assert.equal(fs.fstatSync(0).isDirectory(), true);
  assert.equal(tarvek.exists(inner, ['f']), true);
  tarvek.close(inner);
  assert.equal(tarvek.exists(handle, ['d']), true);
  assert.equal(open(at('d', 'f')), 0);
  tarvek.publishVerified(handle, 0, ['d', 'f'], ['p'], BYTES.OLD);
  assertTree({ d: {}, p: OLD });
});
