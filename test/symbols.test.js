'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const test = require('node:test');
const compile = require('./support/compile.js');
const { place } = require('./support/harness.js');

const UNLOADABLE = [
  'Own is exported',
  'unique is exported',
  'napi_register_module_v1 is not exported',
  'node_api_module_get_api_version_v1 is not exported',
  'no_function_of_node is neither of Node-API 9 nor of the C and C++ libraries',
  'pthread_create needs GLIBC_2.34, newer than Node itself',
  'libthread_db.so.1 is linked',
  'libraries are looked for in a folder of its own',
  'symbols are bound lazily',
  'the relocation tables stay writable',
  'the stack may be executable',
];
const UNSAFE_LINKING = [
  '-Wl,--no-as-needed,-lthread_db',
  '-Wl,-rpath,/',
  '-Wl,-z,lazy,-z,norelro,-z,execstack',
];

test('the check of symbols names everything that keeps a module from loading', () => {
  const module = path.join(place.base, 'unloadable.node');
  compile('unloadable.c', module, ...UNSAFE_LINKING);
  const script = path.join(__dirname, '../scripts/check-symbols.js');
  const { status, stderr } = spawnSync(process.execPath, [script, module], { encoding: 'utf8' });
  assert.deepEqual(stderr.trim().split('\n'), UNLOADABLE);
  assert.equal(status, 1);
});
