'use strict';

// What threads, processes and the garbage collector do to the state of the module: the hook, the
// counter of temporary names, and the handles.

const assert = require('node:assert/strict');
const { once } = require('node:events');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { setImmediate: turn } = require('node:timers/promises');
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const { Worker } = require('node:worker_threads');
const { assertTree, place, sandbox } = require('./support/harness.js');
const { BYTES, OLD } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// A WeakRef that was just made or read keeps its target until the event loop turns.
async function collected() {
  await turn();
  collect();
  await turn();
}

test('a hook is collected after it was replaced or removed, and not before', async () => {
  const fired = [];
  const set = (name) => {
    const hook = () => fired.push(name);
    tarvek.setTestHook(hook);
    return new WeakRef(hook);
  };
  const hooks = ['first', 'second'].map(set);
  await collected();
  tarvek.close(tarvek.openRoot(place.base));
  assert.equal(fired[0], 'second', 'the hook that was called');
  assert.equal(hooks[0].deref(), undefined, 'the replaced hook is gone');
  tarvek.setTestHook();
  await collected();
  assert.equal(hooks[1].deref(), undefined, 'the removed hook is gone');
});

const TEMPORARY = new RegExp(`^\\.tarvek-${process.pid}-([1-9]\\d*)-([0-9a-f]{32})$`);

// Runs a program of test/programs/ in a thread. Returns what it posts.
async function runInThread(name, workerData) {
  const worker = new Worker(path.join(__dirname, 'programs', name), { workerData });
  const [[posted], [status]] = await Promise.all([once(worker, 'message'), once(worker, 'exit')]);
  assert.equal(status, 0);
  return posted;
}

test('a hook is not called in another thread', async (t) => {
  t.after(() => tarvek.setTestHook());
  tarvek.setTestHook(assert.fail);
  await runInThread('temporary-names.js', place.base);
});

test('threads number their temporary files together, so that no name is used twice', async () => {
  const threads = Array.from(Array(4), () => runInThread('temporary-names.js', place.base));
  const names = (await Promise.all(threads)).flat();
  const parts = names.map((name) => TEMPORARY.exec(name));
  const digits = parts.map(([, , random]) => random);
  assert.equal(new Set(digits).size, names.length, 'random digits are used twice');
  assert.doesNotMatch(digits.join(''), /0{16}/, 'random bytes are missing');
  const numbers = parts.map(([, number]) => Number(number));
  numbers.sort((a, b) => a - b);
  const consecutive = numbers.map((_, i) => numbers[0] + i);
  assert.deepEqual(numbers, consecutive);
});

test('descriptor 0 works like any other', (t) => {
  fs.closeSync(0);
  t.after(() => fs.openSync('/dev/null'));
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
});
