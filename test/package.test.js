'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { inspect } = require('node:util');
const load = require('../load.js');
const tarvek = require('tarvek');
const { codes } = require('./support/harness.js');
const { scenarios } = require('./support/rows.js');

const EXPORTS =
  `open openRoot openRelative close rootIdentity exists list capture snapshot read write
  create append ensureDirectory ensureRelativeSymlink remove removeIfEquals move publishVerified
  setTestHook exchangeForTest`.split(/\s+/);
const BUILD = path.join(__dirname, '../build/Release');

test('the native module has exactly its functions, in order, neither replaceable nor enumerable', () => {
  const native = require(process.env.TARVEK_MODULE || `${BUILD}/tarvek.node`);
  const properties = Object.getOwnPropertyDescriptors(native);
  assert.deepEqual(Reflect.ownKeys(properties), EXPORTS);
  for (const [name, { value, ...flags }] of Object.entries(properties)) {
    assert.equal(typeof value, 'function', name);
    assert.deepEqual(flags, { writable: false, enumerable: false, configurable: false }, name);
  }
});

test('require returns a plain object, which a console can show and a test can mock', (t) => {
  assert.deepEqual(Object.keys(tarvek), EXPORTS);
  assert.equal(inspect(tarvek).match(/\[Function/g).length, EXPORTS.length);
  for (const name of EXPORTS) {
    const mocked = t.mock.method(tarvek, name, () => name);
    assert.equal(tarvek[name](), name);
    mocked.mock.restore();
  }
});

test('import returns what require returns, by name and as the default', async () => {
  const { default: whole, ...named } = await import('tarvek');
  assert.equal(whole, tarvek);
  for (const name of EXPORTS) assert.equal(named[name], tarvek[name], name);
});

test('the types have every hook point, stage and code', () => {
  const types = fs.readFileSync(path.join(__dirname, '../index.d.ts'), 'utf8');
  const unions = types.matchAll(/^export type (?:HookPoint|WriteStage|ErrorCode) =([^;]+);/gm);
  const members = Array.from(unions, ([, union]) => union.match(/[\w-]+/g)).flat();
  const points = scenarios.flatMap(({ hooks }) => hooks.map(({ event }) => event.point));
  assert.deepEqual(members.sort(), [...new Set([...points, ...codes])].sort());
});

test('an error of loading has the reason as its cause', (t) => {
  const reason = new Error('a reason');
  t.mock.method(process, 'dlopen', () => {
    throw reason;
  });
  delete require.cache[require.resolve(`${BUILD}/tarvek.node`)];
  assert.throws(load, { message: /does not load: a reason\n/, cause: reason });
});
