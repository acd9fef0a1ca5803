'use strict';

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const { EventEmitter } = require('node:events');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const threads = require('node:worker_threads');

const cwd = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-examples-')));
for (const name of ['d', 'empty']) fs.mkdirSync(path.join(cwd, 'real', name), { recursive: true });
for (const link of ['real/d/link', 'alias']) fs.symlinkSync('real', path.join(cwd, link));
test.after(() => fs.rmSync(cwd, { recursive: true }));
const example = (name) => require.resolve(`../examples/${name}.js`);
const env = { ...process.env, TMPDIR: cwd, NODE_TEST_CONTEXT: undefined };
const node = (...args) => spawnSync(process.execPath, args, { cwd, env, encoding: 'utf8' });
const RUNS = {
  journal: [0, /recovered: \[{"amount":5},{"amount":-2},{"amount":8}\].*OPTIMISTIC_CONFLICT/s],
  release: [0, /: 1\.1\.0, app.*refused.*: 1\.1\.0.*: 00000003\ncurrent: 1\.0\.0.*staged: 0\n/s],
  'race-test': [0, /pass 15\n.*fail 0\n/s],
  server: [0, /(\d ms.*){6}NOT_FOUND\n$/s],
  tour: [0, /Left out: .*! attack succeeds.*All \d+ steps went as they should.*check.*server/s],
  'tour alias': [0, /alias leads there through a symlink.* d\/link: symlink/s],
  'tour nowhere': [1, /cannot start at .*nowhere: there is no such directory/],
  check: [2, /^usage/],
  'check real/d/link/none': [2, /none: there is no such directory\n$/],
  'check /': [1, /^\/: cannot be a root \(PATH_OUT_OF_ROOT\)\n\/: 1 found\n$/],
  'check alias': [1, /\/alias: symlink \(P.*\nd\/link: symlink \(P.*\nalias: 2 found\n$/],
  'check real d/link/x': [
    1,
    /^d\/link: symlink \(PATH_OUT_OF_ROOT\)\nreal, d\/link\/x: 1 found\n$/,
  ],
  'check real d/none/x': [1, /^d\/none: missing \(NOT_FOUND\)\n/],
  'check real d/../d': [1, /^d\/\.\.: cannot be passed to a call \(PATH_OUT_OF_ROOT\)\n/],
  'check /dev shm': [1, /^shm: mount point, .* \(FILESYSTEM_FAILURE\)\n/],
  'check real/empty': [0, /^real\/empty: nothing found\n$/],
};
for (const [command, [status, output]] of Object.entries(RUNS)) {
  test(`the example ${command}`, () => {
    const [name, ...args] = command.split(' ');
    const run = node(example(name), ...args);
    assert.match(run.stdout + run.stderr, output);
    assert.equal(run.status, status);
    assert.deepEqual(fs.readdirSync(cwd).sort(), ['alias', 'real'], 'what it made is gone');
  });
}

function makeDirectory(t) {
  const directory = fs.mkdtempSync(path.join(cwd, 'hostile-'));
  t.after(() => fs.rmSync(directory, { recursive: true }));
  return directory;
}

// In the order of their bytes: the name, as latin1, what makes it, and how check.js shows it.
const file = (at) => fs.writeFileSync(at, '');
const OBSTACLES = [
  ['.tarvek-1', file, '.tarvek-1: temporary file of a write, running or crashed, 0 days old'],
  ['a\n\xe2\x80\xae', (at) => fs.symlinkSync('.', at), 'a\\x0a\\u{202e}: symlink (P'],
  ['back\\', file, 'back\\x5c: name with a backslash, cannot be passed to a call (P'],
  ['bad\xff\x1b', file, 'bad\\xff\\x1b: name that is not UTF-8, cannot be passed to a call (N'],
  ['dir', (at) => fs.mkdirSync(at, 0), 'dir: directory that this process may not read and'],
  ['fifo', (at) => execFileSync('mkfifo', [at]), 'fifo: FIFO, can be moved and removed, but not'],
  [
    'file',
    (at) => fs.writeFileSync(at, '', { mode: 0 }),
    'file: file that this process may not read (F',
  ],
  ['hard', file, 'hard: file with 2 hard links (P'],
  ['hard2', (at) => fs.linkSync(at.subarray(0, -1), at), 'hard2: file with 2 hard links (P'],
  ['well \u00c3\u00a9', file],
];
// Run by a user who is not root: each line of check.js, and the code that capture throws.
const CHECK = (directory) => `
  const { check, line } = require('${example('check')}');
  const { openRoot, capture } = require('${require.resolve('tarvek')}');
  if (process.getuid() === 0) process.setgid(65534), process.setuid(65534);
  const root = openRoot('${directory}');
  for (const found of check('${directory}')) {
    let code = '';
    try { capture(root, [[String(found.path)]]) } catch (error) { code = ' (' + error.code + ')' }
    console.log(JSON.stringify([line(found), code]));
  }`;

test('check.js names every obstacle with the code that capture throws, and changes nothing', (t) => {
  const directory = makeDirectory(t);
  for (const at of [cwd, directory]) fs.chmodSync(at, 0o755);
  for (const [name, make] of OBSTACLES) make(Buffer.from(`${directory}/${name}`, 'latin1'));
  const image = () => String(execFileSync('find', [directory, '-printf', '%p %i %m %n %T@ %C@\n']));
  const before = image();
  const { stdout, stderr } = node('-e', CHECK(directory));
  assert.equal(image(), before);
  const found = stdout.trim().split('\n').map(JSON.parse);
  const expected = OBSTACLES.flatMap(([, , shown]) => shown ?? []);
  assert.equal(found.length, expected.length, stderr);
  for (const [index, [line, code]] of found.entries()) {
    assert.equal(line.slice(0, expected[index].length), expected[index]);
    assert.ok(line.endsWith(code || 'old'), `${line}, and capture throws${code}`);
  }
});

// The last worker that server.js made.
let worker;
threads.Worker = class extends threads.Worker {
  constructor(...args) {
    super(...args);
    worker = this;
  }
};
const { openRoot } = require('../examples/server.js');
const big = (text) => Buffer.alloc(2 ** 20, text);

test('server.js takes Buffers over, and passes on results and errors', async (t) => {
  const root = await openRoot(makeDirectory(t));
  const [whole, pooled, other] = [big('a'), Buffer.from('b'), big('c')];
  const written = root.write(['d', 'whole'], whole);
  assert.equal(whole.length, 0);
  await written;
  await Promise.all([root.write(['d', 'part'], other.subarray(1)), root.write(['e'], pooled)]);
  assert.deepEqual(
    [other.length, String(pooled)],
    [2 ** 20, 'b'],
    'what has other users is copied',
  );
  const part = big('c').subarray(1);
  const files = Object.assign(Object.create(null), { part, whole: big('a') });
  assert.deepEqual(await root.snapshot(['d']), files);
  const [, ...records] = await root.capture([['d'], ['e']]);
  assert.deepEqual(
    Array.from(records, ({ body }) => body),
    [part, big('a'), pooled],
  );
  await assert.rejects(root.create(['e'], other), (error) => {
    assert.deepEqual({ ...error }, { code: 'OPTIMISTIC_CONFLICT', body: big('c') });
    assert.equal(other.length, 0);
    return /already exists\n.*examples\.test\.js/s.test(error.stack);
  });
  await root.close();
});

test('server.js hands over the Buffers of a result', (t) => {
  const directory = makeDirectory(t);
  fs.writeFileSync(path.join(directory, 'big'), big('x'));
  const sent = [];
  const parentPort = Object.assign(new EventEmitter(), { postMessage: (...all) => sent.push(all) });
  const before = { ...threads };
  Object.assign(threads, { parentPort, workerData: 'tarvek worker' });
  delete require.cache[example('server')];
  require('../examples/server.js');
  Object.assign(threads, before);
  const calls = [['openRoot', directory], ['read', ['big']], ['capture', [['big']]], ['close']];
  for (const [name, ...value] of calls) parentPort.emit('message', { name, value });
  const [, [{ value }, transferred], [{ value: records }, others]] = sent;
  assert.deepEqual([value.byteLength, records[0].body.byteLength], [2 ** 20, 2 ** 20]);
  assert.ok(transferred[0] === value && others[0] === records[0].body);
});

test('server.js closes after the calls before, and rejects those after, or when it died', async (t) => {
  const directory = makeDirectory(t);
  await assert.rejects(openRoot(`${directory}/none`), { code: 'NOT_FOUND' });
  const root = await openRoot(directory);
  for (const name of ['a', 'b']) root.write([name], big(name));
  const closed = root.close();
  await assert.rejects(root.read(['a']), { code: 'HANDLE_CLOSED' });
  await closed;
  assert.deepEqual(fs.readdirSync(directory), ['a', 'b']);
  const dying = await openRoot(directory);
  const pending = dying.write(['a'], big('c'));
  worker.terminate();
  await assert.rejects(pending, { code: 'WORKER_ENDED' });
  await assert.rejects(dying.exists(['a']), { code: 'WORKER_ENDED' });
});

test('a root of server.js keeps the process running for pending calls only', (t) => {
  const script = `require('${example('server')}').openRoot('${makeDirectory(t)}')
    .then((root) => root.write(['a'], Buffer.from('a'))).then(() => console.log('written'));`;
  const run = spawnSync(process.execPath, ['-e', script], { encoding: 'utf8', timeout: 60_000 });
  assert.deepEqual([run.stdout, run.status], ['written\n', 0]);
});
