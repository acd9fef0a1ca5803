'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('tarvek');
const { codes } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const built = require('./support/tarvek.js');

const EXPORTS =
  `open openRoot openRelative close rootIdentity exists list capture snapshot read write
  create append ensureDirectory ensureRelativeSymlink remove removeIfEquals move publishVerified
  setTestHook exchangeForTest`.split(/\s+/);

test('the module has just its functions, in order, which nobody can replace or enumerate', () => {
  const properties = Object.getOwnPropertyDescriptors(built);
  assert.deepEqual(Reflect.ownKeys(properties), EXPORTS);
  for (const [name, { value, ...flags }] of Object.entries(properties)) {
    assert.equal(typeof value, 'function', name);
    assert.deepEqual(flags, { writable: false, enumerable: false, configurable: false }, name);
  }
  assert.notEqual(built.open, built.openRoot);
});

test('import gives what require gives, by name and as the default', async () => {
  const { default: all, ...named } = await import('tarvek');
  assert.equal(all, tarvek);
  assert.deepEqual(named, Object.fromEntries(EXPORTS.map((name) => [name, tarvek[name]])));
});

test('the types declare every function, with a comment, and every point, stage and code', () => {
  const types = fs.readFileSync(path.join(__dirname, '..', 'index.d.ts'), 'utf8');
  const declared = Array.from(types.matchAll(/^(.*\*\/\n)?export function (\w+)/gm));
  assert.deepEqual(declared.map(([, , name]) => name).sort(), [...EXPORTS].sort());
  for (const [, comment, name] of declared) assert.ok(comment, name);
  const unions = ['HookPoint', 'WriteStage', 'ErrorCode'].map((name) => `export type ${name} =`);
  const members = unions.flatMap((type) =>
    types
      .split(type)[1]
      .split(';')[0]
      .match(/[\w-]+/g),
  );
  const points = scenarios.flatMap(({ hooks }) => hooks.map(([point]) => point));
  assert.deepEqual(members.sort(), [...new Set([...points, ...codes])].sort());
});
