'use strict';

// tarvek/check and its command, in directories made to mislead or to stop them.

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { mock, test } = require('node:test');
const { check } = require('tarvek/check');
const { bin, version } = require('../package.json');
const { expectProgram, place, sandbox, table } = require('./support/harness.js');
const { build, fifo, hardlink, sparse, symlink, withMode } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const COMMAND = path.join(__dirname, '..', bin.tarvek);
const LEFTOVER = `.tarvek-12-3-${'a'.repeat(32)}`;
const link = symlink('x');
// Appends two bytes to its name that no string can hold.
const notUtf8 = (at) =>
  fs.writeFileSync(Buffer.concat([Buffer.from(at), Buffer.from('ff1b', 'hex')]), '');

// The name, the entry, its kind, and how a line shows its name, in the order of the bytes.
const OBSTACLES = [
  [LEFTOVER, '', 'leftover', LEFTOVER],
  ['a \n\u202e', link, 'symlink', 'a \\x0a\\u{202e}'],
  ['back\\', '', 'bad-name', 'back\\x5c'],
  ['bad', notUtf8, 'not-utf8', 'bad\\xff\\x1b'],
  ['dir', withMode(0, {}), 'unreadable', 'dir'],
  ['dir2', withMode(0o744, { f: '' }), 'unreadable', 'dir2'],
  ['fifo', fifo(), 'fifo', 'fifo'],
  ['file', withMode(0, ''), 'unreadable', 'file'],
  ['hard', '', 'hard-link', 'hard'],
  ['hard2', hardlink('hard'), 'hard-link', 'hard2'],
  ['huge', sparse(2 ** 43), 'too-large', 'huge'],
];
const HARMLESS = { '.tarvek-1': '', 'well é': '' };

test('every obstacle is found, with the code that capture throws, and nothing changes', () => {
  fs.chmodSync(place.base, 0o755);
  sandbox({ ...Object.fromEntries(OBSTACLES), ...HARMLESS }, ({ root }) => {
    const image = () => String(execFileSync('find', [root, '-printf', '%p %i %m %n %T@ %C@\n']));
    const before = image();
    const found = JSON.parse(expectProgram('check-as-other.js', root));
    assert.equal(image(), before, 'the disk');
    const shown = found.map(([kind, line]) => [kind, line.split(': ')[0]]);
    const expected = OBSTACLES.map(([, , kind, name]) => [kind, name]);
    assert.deepEqual(shown, expected);
    for (const [, line, code, thrown] of found) assert.equal(code, thrown, line);
  });
});

const LAYOUT = {
  alias: symlink('real'),
  file: '',
  left: { [LEFTOVER]: '' },
  real: { d: { link: symlink('..') } },
};
const LONG = 'x'.repeat(256);

// What stops a call, the path below the root that leads there, or the path of a root, and what is
// found.
const STOPS = [
  ['a missing directory', 'real/none/x', 'real/none: missing'],
  ['a symlink', 'real/d/link/x', 'real/d/link: symlink'],
  ['a file on the way', 'file/x', 'file: not-a-directory'],
  ['a name', 'real/../real', 'real/..: bad-name'],
  ['a long name', LONG, `${LONG}: unreadable`],
  ['the top', '/', '/: bad-name'],
  ['a missing root', place.at('none', 'x'), `${place.root}/none: missing`],
  ['a file as the root', place.at('file'), `${place.root}/file: not-a-directory`],
  ['a symlink as the root', place.at('alias'), `${place.root}/alias: symlink`, 'd/link: symlink'],
];

table('a check finds what stops a call', STOPS, (way, ...expected) =>
  sandbox(LAYOUT, ({ root, handle }) => {
    const names = way.split('/');
    const isRoot = path.isAbsolute(way);
    const found = Array.from(isRoot ? check(way) : check(root, names));
    const shown = found.map(({ path: at, kind }) => `${at}: ${kind}`);
    assert.deepEqual(shown, expected);
    const call = () => (isRoot ? tarvek.openRoot(way) : tarvek.read(handle, names));
    assert.throws(call, { code: found[0].code });
  }),
);

test('a mount point is found', () => {
  const [{ kind }] = check('/dev', ['shm']);
  assert.equal(kind, 'mount-point');
});

test('what is no directory or no path is refused at once', () => {
  for (const wrong of ['', undefined, Buffer.from('/')]) {
    assert.throws(() => check(wrong), /^TypeError: the directory is/);
  }
  for (const wrong of ['real', [], [1], Array(1)]) {
    assert.throws(() => check('/', wrong), /^TypeError: a path is/);
  }
});

test('entries are looked at in the directory that was opened, whatever takes its name', () => {
  sandbox({ inside: { a: link, b: link, c: link }, outside: { b: link } }, ({ root, at }) => {
    const found = [];
    for (const { path: name } of check(root, ['inside'])) {
      found.push(name);
      // Leaves the walk while its descriptors are open. The sandbox finds any that stays open.
      if (name === 'inside/c') break;
      fs.renameSync(at('inside'), at('away'));
      fs.symlinkSync('outside', at('inside'));
      fs.unlinkSync(at('away', 'b'));
    }
    assert.deepEqual(found, ['inside/a', 'inside/c'], 'b has vanished from the directory');
  });
});

test('a path beyond PATH_MAX is walked', () => {
  sandbox({ real: {} }, ({ root, handle, at }) => {
    const names = [...Array(20).fill('n'.repeat(250)), 'link'];
    tarvek.ensureRelativeSymlink(handle, names, ['real']);
    const found = [...check(root), ...check(root, names)].map(({ path: name }) => name);
    assert.deepEqual(found, [names.join('/'), names.join('/')]);
    // fs.rmSync fails on a path that is too long.
    execFileSync('rm', ['-r', at(names[0])]);
  });
});

// The call before which an entry changes, what it was, what takes its place, and what is found.
const RACES = [
  ['a directory becomes a symlink', 'openSync', {}, symlink('empty'), ['changed']],
  ['a directory vanishes', 'openSync', {}, undefined, []],
  ['a file vanishes', 'accessSync', '', undefined, []],
];

table('an entry that changes is not followed', RACES, (method, before, after, expected) =>
  sandbox({ empty: {}, entry: before }, ({ root, at }) => {
    const original = fs[method];
    mock.method(fs, method, (name, ...rest) => {
      if (String(name).endsWith('/entry')) {
        fs.rmSync(at('entry'), { recursive: true });
        build(at('entry'), after);
      }
      return original(name, ...rest);
    });
    try {
      const kinds = Array.from(check(root), ({ kind }) => kind);
      assert.deepEqual(kinds, expected);
    } finally {
      mock.restoreAll();
    }
  }),
);

const SYMLINK = 'symlink \\(PATH_OUT_OF_ROOT\\)\n';
// The arguments, the exit status, and what is printed.
const COMMANDS = [
  ['check', 2, '^Usage: '],
  ['check --deep real', 2, '^tarvek: .*--deep'],
  ['-v', 0, `^${version}\n$`],
  ['check left', 0, `^${LEFTOVER}: temporary file .*\nno obstacles\n$`],
  ['check real d/none d/link/', 1, `^d/none: missing .*\nd/link: ${SYMLINK}2 obstacles\n$`],
];

const commands = COMMANDS.map(([words, ...rest]) => [`tarvek ${words}`, words, ...rest]);

table('the command', commands, (words, status, output) =>
  sandbox(LAYOUT, ({ root }) => {
    const args = [COMMAND, ...words.split(' ')];
    const run = spawnSync(process.execPath, args, { cwd: root, encoding: 'utf8' });
    assert.match(run.stdout + run.stderr, new RegExp(output));
    assert.equal(run.status, status);
  }),
);

test('the command ends when its reader has seen enough', () => {
  // More than a pipe holds.
  const many = Object.fromEntries(Array.from({ length: 2000 }, (_, n) => [`link-${n}`, link]));
  sandbox(many, ({ root }) => {
    const options = { cwd: root, encoding: 'utf8' };
    const words = ['-c', '"$0" "$1" check . | head -n 1', process.execPath, COMMAND];
    const { stdout, stderr } = spawnSync('sh', words, options);
    assert.deepEqual([stdout, stderr], ['link-0: symlink (PATH_OUT_OF_ROOT)\n', '']);
  });
});
