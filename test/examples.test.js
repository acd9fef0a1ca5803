'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const threads = require('node:worker_threads');

const cwd = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-examples-')));
fs.mkdirSync(path.join(cwd, 'real', 'd'), { recursive: true });
fs.symlinkSync('real', path.join(cwd, 'alias'));
fs.symlinkSync('real', path.join(cwd, 'real', 'd', 'link'));
test.after(() => fs.rmSync(cwd, { recursive: true }));

const example = (name) => require.resolve(`../examples/${name}.js`);
const env = { ...process.env, TMPDIR: cwd, NODE_TEST_CONTEXT: undefined };

function runNode(...args) {
  return spawnSync(process.execPath, args, { cwd, env, encoding: 'utf8', timeout: 60_000 });
}

// The example with its arguments, its exit status, and what it prints.
const RUNS = [
  ['journal', 0, /recovered: \[{"amount":5},{"amount":-2},{"amount":8}\].*OPTIMISTIC_CONFLICT/s],
  ['release', 0, /: 1\.1\.0, app.*refused.*: 1\.1\.0.*: 00000003\ncurrent: 1\.0\.0.*staged: 0\n/s],
  ['race-test', 0, /pass 15\n.*fail 0\n/s],
  ['server', 0, /(\d ms.*){6}NOT_FOUND\n$/s],
  ['tour', 0, /Left out: .*! attack succeeds.*All \d+ steps went as they should.*check.*server/s],
  ['tour alias', 0, /alias leads there through a symlink.* d\/link: symlink/s],
  ['tour nowhere', 1, /cannot start at .*nowhere: there is no such directory/],
];

for (const [command, status, output] of RUNS) {
  test(`the example ${command}`, () => {
    const [name, ...args] = command.split(' ');
    const run = runNode(example(name), ...args);
    assert.match(run.stdout + run.stderr, output);
    assert.equal(run.status, status);
    assert.deepEqual(fs.readdirSync(cwd).sort(), ['alias', 'real'], 'what it made is gone');
  });
}

const makeDirectory = () => fs.mkdtempSync(path.join(cwd, 'hostile-'));
const { Worker } = threads;
let worker;
threads.Worker = function start(...args) {
  worker = new Worker(...args);
  return worker;
};
const { openRoot } = require('../examples/server.js');
const big = (text) => Buffer.alloc(2 ** 20, text);

test('server.js transfers or copies Buffers, and passes results and errors on', async () => {
  const root = await openRoot(makeDirectory());
  const [whole, pooled, other] = [big('a'), Buffer.from('b'), big('c')];
  const written = root.write(['d', 'whole'], whole);
  assert.equal(whole.length, 0);
  await written;
  await Promise.all([root.write(['d', 'part'], other.subarray(1)), root.write(['e'], pooled)]);
  assert.deepEqual([other, pooled], [big('c'), Buffer.from('b')], 'shared memory is copied');
  const files = { part: big('c').subarray(1), whole: big('a') };
  assert.deepEqual(await root.snapshot(['d']), Object.assign(Object.create(null), files));
  assert.deepEqual((await root.capture([['d'], ['e']]))[2].body, big('a'));
  const error = await root.create(['e'], other).catch((thrown) => thrown);
  assert.deepEqual({ ...error }, { code: 'OPTIMISTIC_CONFLICT', body: big('c') });
  assert.match(error.stack, /already exists\n.*examples\.test\.js/s);
  await root.close();
});

test('server.js closes after earlier calls, and rejects later ones and those of a dead worker', async () => {
  const directory = makeDirectory();
  await assert.rejects(openRoot(`${directory}/none`), { code: 'NOT_FOUND' });
  const root = await openRoot(directory);
  for (const name of ['a', 'b']) root.write([name], big(name));
  const closed = root.close();
  await assert.rejects(root.read(['a']), { code: 'HANDLE_CLOSED' });
  await closed;
  assert.deepEqual(fs.readdirSync(directory), ['a', 'b']);
  const dying = await openRoot(directory);
  // Ended before the call: a worker could answer an earlier call.
  worker.terminate();
  const pending = dying.write(['a'], big('c'));
  await assert.rejects(pending, { code: 'WORKER_ENDED' });
  await assert.rejects(dying.exists(['a']), { code: 'WORKER_ENDED' });
});

test('a root of server.js keeps the process running for pending calls only', () => {
  const script = `require('${example('server')}').openRoot('${makeDirectory()}')
    .then((root) => root.write(['a'], Buffer.from('a'))).then(() => console.log('written'));`;
  const { stdout, status } = runNode('-e', script);
  assert.deepEqual([stdout, status], ['written\n', 0]);
});
