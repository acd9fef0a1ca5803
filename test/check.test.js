'use strict';

// tarvek/check and its command, in directories made to mislead or to stop them.

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('tarvek');
const { check } = require('tarvek/check');
const { bin, version } = require('../package.json');

const PACKAGE = path.join(__dirname, '..');
const COMMAND = path.join(PACKAGE, bin.tarvek);
const scratch = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-check-')));
// Not with fs.rmSync, which fails on a path that is too long.
test.after(() => execFileSync('rm', ['-r', scratch]));
fs.chmodSync(scratch, 0o755);
const at = (...names) => path.join(scratch, ...names);
const bytesAt = (name) => Buffer.from(at('all', name), 'latin1');
const openDescriptors = () => fs.readdirSync('/proc/self/fd').length;
fs.mkdirSync(at('all'));
fs.mkdirSync(at('real', 'd'), { recursive: true });
fs.mkdirSync(at('empty'));
for (const link of ['real/d/link', 'alias']) fs.symlinkSync('real', at(link));
fs.symlinkSync('nowhere', at('dangling'));

const file = (name, mode) => fs.writeFileSync(bytesAt(name), '', { mode });
const make = (command, name) => execFileSync(command, [at('all', name)]);
function hugeFile(name) {
  file(name);
  fs.truncateSync(bytesAt(name), 2 ** 43);
}
function notSearchable(name) {
  fs.mkdirSync(bytesAt(name));
  file(`${name}/inside`);
  fs.chmodSync(bytesAt(name), 0o744);
}
const LEFTOVER = `.tarvek-12-3-${'a'.repeat(32)}`;
// Sorted by bytes: the name as latin1, what creates it, its kind, and the beginning of its line.
const OBSTACLES = [
  [LEFTOVER, file, 'leftover', `${LEFTOVER}: temporary file of a write, running or crashed, 0 d`],
  [
    'a\n\xe2\x80\xae',
    (name) => fs.symlinkSync('.', bytesAt(name)),
    'symlink',
    'a\\x0a\\u{202e}: s',
  ],
  ['back\\', file, 'bad-name', 'back\\x5c: name with a backslash, cannot be passed to a call (P'],
  ['bad\xff\x1b', file, 'not-utf8', 'bad\\xff\\x1b: name that is not UTF-8, cannot be passed to'],
  ['dir', (name) => fs.mkdirSync(bytesAt(name), 0), 'unreadable', 'dir: directory that this proc'],
  ['dir2', notSearchable, 'unreadable', 'dir2: directory that thi'],
  ['fifo', (name) => make('mkfifo', name), 'fifo', 'fifo: FIFO, can be moved and removed, but not'],
  ['file', (name) => file(name, 0), 'unreadable', 'file: file that this process may not read (F'],
  ['hard', file, 'hard-link', 'hard: file with 2 hard links (P'],
  ['hard2', (name) => fs.linkSync(bytesAt('hard'), bytesAt(name)), 'hard-link', 'hard2: file wit'],
  ['huge', hugeFile, 'too-large', 'huge: file of 8192.0 GiB, too large to be read into memory'],
];
const HARMLESS = ['.tarvek-1', 'well \xc3\xa9'];

// As a user who is not root: the obstacles, their lines, and the code that capture throws for each.
function checkAsOther(directory) {
  const script = `const { check, format } = require('tarvek/check');
    const { openRoot, capture } = require('tarvek');
    if (process.getuid() === 0) process.setgid(65534), process.setuid(65534);
    const codeOf = (names, root = openRoot('${directory}')) => {
      try { capture(root, [names]); return null } catch ({ code }) { return code } };
    const found = Array.from(check('${directory}'));
    console.log(JSON.stringify(found.map((one) => [one, format(one), codeOf([one.path])])));`;
  const options = { cwd: PACKAGE, encoding: 'utf8' };
  const { stdout, stderr } = spawnSync(process.execPath, ['-e', script], options);
  assert.equal(stderr, '');
  return JSON.parse(stdout);
}

test('every obstacle is found, with the code that capture throws, and nothing changes', () => {
  for (const [name, create] of OBSTACLES) create(name);
  for (const name of HARMLESS) file(name);
  const image = () =>
    String(execFileSync('find', [at('all'), '-maxdepth', '1', '-printf', '%p %i %m %n %T@ %C@\n']));
  const before = image();
  const all = checkAsOther(at('all'));
  assert.equal(image(), before);
  assert.deepEqual(
    all.map(([{ kind }]) => kind),
    OBSTACLES.map(([, , kind]) => kind),
  );
  for (const [index, [found, line, code]] of all.entries()) {
    const [name, , , beginning] = OBSTACLES[index];
    assert.equal(line.slice(0, beginning.length), beginning);
    assert.equal(found.code, code, line);
    assert.equal(Buffer.from(found.bytes ?? found.path).toString('latin1'), name);
  }
});

// A path below the scratch directory, and what is found there, with the code that read throws.
const WAYS = [
  ['real/none/x', 'real/none', 'missing'],
  ['real/none', 'real/none', 'missing'],
  ['real/d/link/x', 'real/d/link', 'symlink'],
  ['all/hard/x', 'all/hard', 'not-a-directory'],
  ['all/fifo/x', 'all/fifo', 'not-a-directory'],
  ['real/../real', 'real/..', 'bad-name'],
  ['real/a\\b', 'real/a\\b', 'bad-name'],
  [`real/${'x'.repeat(256)}`, `real/${'x'.repeat(256)}`, 'unreadable'],
];
for (const [way, stop, kind] of WAYS) {
  test(`the way to ${way.slice(0, 20)} ends at what read refuses`, (t) => {
    const root = tarvek.openRoot(scratch);
    t.after(() => tarvek.close(root));
    const found = Array.from(check(scratch, way.split('/')));
    assert.deepEqual(
      found.map((one) => [one.path, one.kind]),
      [[stop, kind]],
    );
    assert.throws(() => tarvek.read(root, way.split('/')), { code: found[0].code });
  });
}

test('a path that is no array of names is refused at once', () => {
  for (const wrong of ['real', [], [1], Array(1)]) {
    assert.throws(() => check(scratch, wrong), TypeError);
  }
});

test('entries are looked at in the directory that was opened, whatever takes its name', () => {
  const layout = { inside: ['a', 'b', 'c'], outside: ['b', 'c'] };
  for (const [directory, names] of Object.entries(layout)) {
    fs.mkdirSync(at(directory));
    for (const name of names) fs.symlinkSync('x', at(directory, name));
  }
  const found = [];
  for (const { path: name } of check(scratch, ['inside'])) {
    found.push(name);
    if (name !== 'inside/a') continue;
    fs.renameSync(at('inside'), at('away'));
    fs.symlinkSync('outside', at('inside'));
    fs.unlinkSync(at('away', 'b'));
  }
  assert.deepEqual(found, ['inside/a', 'inside/c'], 'b has vanished from the directory');
});

// What is there, the call before which it changes, what takes its place, and what is found.
const RACES = [
  ['directory', 'openSync', 'a symlink', ['changed']],
  ['directory', 'openSync', 'nothing', []],
  ['file', 'accessSync', 'nothing', []],
];
for (const [type, method, successor, kinds] of RACES) {
  test(`a ${type} that gives way to ${successor} before ${method} is not followed`, (t) => {
    const entry = at('race', 'entry');
    fs.mkdirSync(at('race'));
    t.after(() => fs.rmSync(at('race'), { recursive: true }));
    if (type === 'file') fs.writeFileSync(entry, '');
    else fs.mkdirSync(entry);
    const original = fs[method];
    t.mock.method(fs, method, (name, ...rest) => {
      if (String(name).endsWith('/entry')) {
        fs.rmSync(entry, { recursive: true });
        if (successor === 'a symlink') fs.symlinkSync('../real/d', entry);
      }
      return original(name, ...rest);
    });
    const found = Array.from(check(at('race')), ({ kind }) => kind);
    assert.deepEqual(found, kinds);
  });
}

test('a path beyond PATH_MAX is walked, and neither its end nor a break leaks a descriptor', (t) => {
  const root = tarvek.openRoot(scratch);
  t.after(() => tarvek.close(root));
  const link = [...Array(20).fill('n'.repeat(250)), 'link'];
  tarvek.ensureRelativeSymlink(root, ['deep', ...link], ['real']);
  const before = openDescriptors();
  for (const paths of [[], [link]]) {
    for (const isLeft of [false, true]) {
      for (const found of check(at('deep'), ...paths)) {
        assert.equal(found.path, link.join('/'));
        assert.ok(openDescriptors() > before);
        if (isLeft) break;
      }
      assert.equal(openDescriptors(), before);
    }
  }
});

const SYMLINK = 'symlink \\(PATH_OUT_OF_ROOT\\)\n';
const COMMANDS = {
  '': [2, /^Usage: /],
  'look real': [2, /^Usage: /],
  check: [2, /^Usage: /],
  'check --deep real': [2, /^tarvek: .*--deep/],
  'check real --help': [0, /^Usage: .*Exit status/s],
  '-v': [0, new RegExp(`^${version}\n$`)],
  'check empty': [0, /^no obstacles\n$/],
  'check all .tarvek-1': [0, /^no obstacles\n$/],
  [`check all ${LEFTOVER}`]: [0, /: temporary file .*\nno obstacles\n$/],
  'check /': [1, /^\/: cannot be a root \(PATH_OUT_OF_ROOT\)\n1 obstacle\n$/],
  'check none/x': [1, /\/none: missing \(NOT_FOUND\)\n1 obstacle\n$/],
  'check alias': [1, new RegExp(`/alias: ${SYMLINK}d/link: ${SYMLINK}2 obstacles\n$`)],
  'check dangling': [1, new RegExp(`/dangling: ${SYMLINK}1 obstacle\n$`)],
  'check real d/none d/link/ d': [
    1,
    new RegExp(`^d/none: missing \\(NOT_FOUND\\)\nd/link: ${SYMLINK}d/link: ${SYMLINK}3 ob`),
  ],
  'check /dev shm': [1, /^shm: mount point, .* \(FILESYSTEM_FAILURE\)\n/],
  'check -- -': [1, /\/-: missing/],
};
for (const [words, [status, output]] of Object.entries(COMMANDS)) {
  test(`the command: tarvek ${words}`, () => {
    const args = words.split(' ').filter((word) => word !== '');
    const run = spawnSync(process.execPath, [COMMAND, ...args], { cwd: scratch, encoding: 'utf8' });
    assert.match(run.stdout + run.stderr, output);
    assert.equal(run.status, status);
  });
}

test('the command ends when its reader has seen enough', () => {
  fs.mkdirSync(at('many'));
  // More than a pipe holds.
  for (let count = 0; count < 2000; count += 1) fs.symlinkSync('x', at('many', `link-${count}`));
  const command = '"$0" "$1" check many | head -n 1';
  const options = { cwd: scratch, encoding: 'utf8' };
  const { stdout, stderr } = spawnSync('sh', ['-c', command, process.execPath, COMMAND], options);
  assert.deepEqual([stdout, stderr], ['link-0: symlink (PATH_OUT_OF_ROOT)\n', '']);
});
