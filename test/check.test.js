'use strict';

// tarvek/check and its command, in directories made to mislead or to stop them.

const assert = require('node:assert/strict');
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { check } = require('tarvek/check');
const { bin, version } = require('../package.json');
const { expectProgram, place, sandbox, table, thrownBy } = require('./support/harness.js');
const { build, fifo, hardlink, symlink, withMode } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const COMMAND = path.join(__dirname, '..', bin.tarvek);
const LEFTOVER = `.tarvek-12-3-${'a'.repeat(32)}`;
const huge = (at) => {
  fs.writeFileSync(at, '');
  fs.truncateSync(at, 2 ** 43);
};
// Appends two bytes to its name that no string can hold.
const notUtf8 = (at) =>
  fs.writeFileSync(Buffer.concat([Buffer.from(at), Buffer.from('ff1b', 'hex')]), '');

// The name, the entry, its kind, and the beginning of its line, in the order of the bytes.
const OBSTACLES = [
  [LEFTOVER, '', 'leftover', `${LEFTOVER}: temporary file of a write, running or crashed, 0 d`],
  ['a \n\u202e', symlink('.'), 'symlink', 'a \\x0a\\u{202e}: s'],
  ['back\\', '', 'bad-name', 'back\\x5c: name with a backslash, cannot be passed to a call (P'],
  ['bad', notUtf8, 'not-utf8', 'bad\\xff\\x1b: name that is not UTF-8, cannot be passed to'],
  ['dir', withMode(0, {}), 'unreadable', 'dir: directory that this proc'],
  ['dir2', withMode(0o744, { f: '' }), 'unreadable', 'dir2: directory that thi'],
  ['fifo', fifo(), 'fifo', 'fifo: FIFO, can be moved and removed, but not'],
  ['file', withMode(0, ''), 'unreadable', 'file: file that this process may not read (F'],
  ['hard', '', 'hard-link', 'hard: file with 2 hard links (P'],
  ['hard2', hardlink('hard'), 'hard-link', 'hard2: file wit'],
  ['huge', huge, 'too-large', 'huge: file of 8192.0 GiB, too large to be read into memory'],
];
const HARMLESS = { '.tarvek-1': '', 'well é': '' };

test('every obstacle is found, with the code that capture throws, and nothing changes', () => {
  fs.chmodSync(place.base, 0o755);
  sandbox({ ...Object.fromEntries(OBSTACLES), ...HARMLESS }, ({ root }) => {
    const image = () => String(execFileSync('find', [root, '-printf', '%p %i %m %n %T@ %C@\n']));
    const before = image();
    const found = JSON.parse(expectProgram('check-as-other.js', root));
    assert.equal(image(), before);
    const beginnings = found.map(([kind, line], index) => {
      return [kind, line.slice(0, OBSTACLES[index]?.at(-1).length)];
    });
    const expected = OBSTACLES.map(([, , kind, beginning]) => [kind, beginning]);
    assert.deepEqual(beginnings, expected);
    for (const [, line, code, thrown] of found) assert.equal(code, thrown, line);
  });
});

const LAYOUT = {
  alias: symlink('real'),
  dangling: symlink('nowhere'),
  empty: {},
  fifo: fifo(),
  file: '',
  left: { [LEFTOVER]: '', '.tarvek-1': '' },
  real: { d: { link: symlink('..') } },
};

// A path below the root, and what is found on the way, with the code that read throws.
const LONG = 'x'.repeat(256);
const WAYS = [
  ['real/none/x', 'real/none', 'missing'],
  ['real/none', 'real/none', 'missing'],
  ['real/d/link/x', 'real/d/link', 'symlink'],
  ['file/x', 'file', 'not-a-directory'],
  ['fifo/x', 'fifo', 'not-a-directory'],
  ['real/../real', 'real/..', 'bad-name'],
  ['real/a\\b', 'real/a\\b', 'bad-name'],
  [`real/${LONG}`, `real/${LONG}`, 'unreadable'],
];
const ways = WAYS.map(([way, ...rest]) => [`${rest[1]}, ${way.slice(0, 20)}`, way, ...rest]);

table('a way ends at what read refuses', ways, (way, stop, kind) =>
  sandbox(LAYOUT, (ctx) => {
    const [found, ...others] = check(ctx.root, way.split('/'));
    assert.deepEqual([found.path, found.kind, others], [stop, kind, []]);
    assert.throws(() => tarvek.read(ctx.handle, way.split('/')), { code: found.code });
  }),
);

test('a directory that is no path is refused at once', () => {
  for (const wrong of ['', undefined, Buffer.from('/')]) {
    assert.throws(() => check(wrong), { name: 'TypeError', message: /^the directory is a path/ });
  }
});

test('without /proc, the error says what is missing', (t) => {
  const cause = Object.assign(new Error('a reason'), { code: 'ENOENT' });
  t.mock.method(fs, 'readFileSync', () => {
    throw cause;
  });
  assert.throws(() => Array.from(check('/')), { message: /needs \/proc, .* \(ENOENT\)$/, cause });
});

// A directory that openRoot refuses, and what is found.
const ROOTS = [
  ['the top', '/', '/: cannot be a root'],
  ['missing', place.at('none', 'x'), `${place.root}/none: missing`],
  ['a file', place.at('file'), `${place.root}/file: not a directory`],
  ['a symlink', place.at('alias'), `${place.root}/alias: symlink`, 'd/link: symlink'],
  ['a symlink to nothing', place.at('dangling'), `${place.root}/dangling: symlink`],
];

table('what cannot be a root', ROOTS, (directory, ...lines) =>
  sandbox(LAYOUT, () => {
    const found = Array.from(check(directory));
    assert.deepEqual(
      found.map(({ path: at, why }) => `${at}: ${why}`),
      lines,
    );
    assert.throws(() => tarvek.openRoot(directory), { code: found[0].code });
  }),
);

test('a mount point is found', () => {
  const [{ kind }] = check('/dev', ['shm']);
  assert.equal(kind, 'mount-point');
});

test('a path that is no array of names is refused at once', () => {
  for (const wrong of ['real', [], [1], Array(1)]) {
    assert.throws(() => check('/', wrong), TypeError);
  }
});

const link = symlink('x');

test('entries are looked at in the directory that was opened, whatever takes its name', () => {
  sandbox({ inside: { a: link, b: link, c: link }, outside: { b: link } }, ({ root, at }) => {
    const found = [];
    for (const { path: name } of check(root, ['inside'])) {
      found.push(name);
      if (name !== 'inside/a') continue;
      fs.renameSync(at('inside'), at('away'));
      fs.symlinkSync('outside', at('inside'));
      fs.unlinkSync(at('away', 'b'));
    }
    assert.deepEqual(found, ['inside/a', 'inside/c'], 'b has vanished from the directory');
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
    fs[method] = (name, ...rest) => {
      if (String(name).endsWith('/entry')) {
        fs.rmSync(at('entry'), { recursive: true });
        build(at('entry'), after);
      }
      return original(name, ...rest);
    };
    const { result, thrown } = thrownBy(() => Array.from(check(root), ({ kind }) => kind));
    fs[method] = original;
    assert.deepEqual([result, thrown], [expected, undefined]);
  }),
);

test('a path beyond PATH_MAX is walked, and neither its end nor a break leaks a descriptor', () => {
  sandbox({ real: {} }, ({ root, handle, at }) => {
    const names = [...Array(20).fill('n'.repeat(250)), 'link'];
    tarvek.ensureRelativeSymlink(handle, names, ['real']);
    for (const paths of [[], [names]]) {
      assert.deepEqual(
        Array.from(check(root, ...paths), (found) => found.path),
        [names.join('/')],
      );
      for (const _ of check(root, ...paths)) break;
    }
    // fs.rmSync fails on a path that is too long.
    execFileSync('rm', ['-r', at(names[0])]);
  });
});

const SYMLINK = 'symlink \\(PATH_OUT_OF_ROOT\\)\n';
// The arguments, the exit status, and what is printed.
const COMMANDS = [
  ['check', 2, '^Usage: '],
  ['look real', 2, '^Usage: '],
  ['check --deep real', 2, '^tarvek: .*--deep'],
  ['check real --help', 0, '^Usage: [^]*Exit status'],
  ['-v', 0, `^${version}\n$`],
  ['check left', 0, `^${LEFTOVER}: temporary file .*\nno obstacles\n$`],
  ['check dangling', 1, `^/.*/dangling: ${SYMLINK}1 obstacle\n$`],
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
