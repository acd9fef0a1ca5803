'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('tarvek');

const names = Object.getOwnPropertyNames(tarvek).sort();

test('import gives what require gives, by name and as the default', async () => {
  const { default: all, ...named } = await import('tarvek');
  assert.equal(all, tarvek);
  assert.deepEqual(named, Object.fromEntries(names.map((name) => [name, tarvek[name]])));
});

test('the types declare every function, and no other, each with its comment', () => {
  const types = fs.readFileSync(path.join(__dirname, '..', 'index.d.ts'), 'utf8');
  const declared = [...types.matchAll(/^(.*\*\/\n)?export function (\w+)/gm)];
  assert.deepEqual(declared.map(([, , name]) => name).sort(), names);
  const undocumented = declared.filter(([, comment]) => !comment).map(([, , name]) => name);
  assert.deepEqual(undocumented, []);
});
