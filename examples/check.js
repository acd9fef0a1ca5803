'use strict';

// Why was it refused? node check.js DIR [path/below/it]
//
// An error of tarvek names no path. This program does: it lists what tarvek refuses in DIR, or in
// one entry of DIR and on the way to it. Each line ends with the code of the error. It only reads,
// through node:fs, and does not load tarvek.
//
// Run it as the user whose program failed. It checks the right to read, not the right to write. It
// shows the present state: what changed during a call and changed back leaves no trace. Deno hides
// names that are not UTF-8 from it.
//
// Exit status: 0 if nothing was found, 1 if something was, 2 if the arguments are wrong.

const fs = require('node:fs');
const path = require('node:path');

const { R_OK, X_OK } = fs.constants;
const SLASH = Buffer.from('/');
const DAY = 24 * 60 * 60 * 1000;

// Names and paths are Buffers here, since names need not be UTF-8.
const join = (at, name) => Buffer.concat([at, SLASH, name]);
const nameOf = (at) => at.subarray(at.lastIndexOf(SLASH) + 1);
const isUtf8 = (bytes) => Buffer.from(bytes.toString()).equals(bytes);
const ageInDays = (stat) => Math.max(0, Math.floor((Date.now() - stat.mtimeMs) / DAY));

function mayNot(at, mode) {
  try {
    fs.accessSync(at, mode);
    return false;
  } catch {
    return true;
  }
}

function specialType(stat) {
  if (stat.isFIFO()) return 'FIFO';
  return stat.isSocket() ? 'socket' : 'device';
}

// Each applies to one entry: its path, its lstat, and the error if its names could not be read. An
// obstacle without a `code` makes no call fail.
const OBSTACLES = [
  {
    applies: ({ stat }) => stat.isSymbolicLink(),
    why: () => 'symlink',
    code: 'PATH_OUT_OF_ROOT',
  },
  {
    applies: ({ stat }) => stat.isFile() && stat.nlink > 1,
    why: ({ stat }) => `file with ${stat.nlink} hard links`,
    code: 'PATH_OUT_OF_ROOT',
  },
  {
    applies: ({ stat }) => !stat.isFile() && !stat.isDirectory() && !stat.isSymbolicLink(),
    why: ({ stat }) => `${specialType(stat)}, can be moved and removed, but not read or written`,
    code: 'PATH_OUT_OF_ROOT',
  },
  {
    applies: ({ at, stat, error }) =>
      stat.isDirectory() && (error?.code === 'EACCES' || mayNot(at, R_OK | X_OK)),
    why: () => 'directory that this process may not read and search',
    code: 'FILESYSTEM_FAILURE',
  },
  {
    applies: ({ at, stat }) => stat.isFile() && mayNot(at, R_OK),
    why: () => 'file that this process may not read',
    code: 'FILESYSTEM_FAILURE',
  },
  {
    applies: ({ at }) => nameOf(at).includes('\\'),
    why: () => 'name with a backslash, cannot be passed to a call',
    code: 'PATH_OUT_OF_ROOT',
  },
  {
    applies: ({ at }) => !isUtf8(nameOf(at)),
    why: () => 'name that is not UTF-8, cannot be passed to a call',
    code: 'NOT_FOUND',
  },
  {
    applies: ({ at, stat }) => stat.isFile() && nameOf(at).indexOf('.tarvek-') === 0,
    why: ({ stat }) => `temporary file of a write, running or crashed, ${ageInDays(stat)} days old`,
  },
  {
    applies: ({ at, mountPoints }) => mountPoints.has(at.toString('latin1')),
    why: () => 'mount point, cannot be removed or replaced; nothing can be moved across it',
    code: 'FILESYSTEM_FAILURE',
  },
];

// As latin1, one character for each byte. The kernel writes blank, tab, newline and backslash in
// octal. Without /proc, no mount point is found.
function readMountPoints() {
  const toByte = (_all, octal) => String.fromCharCode(Number.parseInt(octal, 8));
  try {
    const lines = fs.readFileSync('/proc/self/mountinfo', 'latin1').trim().split('\n');
    return new Set(lines.map((line) => line.split(' ')[4].replace(/\\(\d{3})/g, toByte)));
  } catch {
    return new Set();
  }
}

// What stands at a path: its lstat, or the error in its place.
function look(at) {
  try {
    return { at, stat: fs.lstatSync(at) };
  } catch (error) {
    return { at, error };
  }
}

function namesIn(directory) {
  try {
    const names = fs.readdirSync(directory.at, { encoding: 'buffer' });
    return names.sort(Buffer.compare);
  } catch (error) {
    directory.error = error;
    return [];
  }
}

// Everything at and beneath a path as node:fs sees it, in the order of tarvek's capture: a
// directory before its entries, names by their bytes. Each comes with its lstat, or an error, or
// with both if it is a directory whose names could not be read.
function* walk(top) {
  const left = [top];
  while (left.length > 0) {
    const found = look(left.pop());
    // Gone since its name was read.
    if (found.error?.code === 'ENOENT') continue;
    const names = found.stat?.isDirectory() ? namesIn(found) : [];
    yield found;
    for (const name of names.reverse()) left.push(join(found.at, name));
  }
}

function* obstaclesAt(found, shown) {
  for (const { applies, why, code } of found.stat ? OBSTACLES : []) {
    if (applies(found)) yield { path: shown, why: why(found), code };
  }
  const isDenied = found.error?.code === 'EACCES';
  // A directory that may not be read is among the obstacles.
  if (!found.error || (found.stat && isDenied)) return;
  const code = isDenied ? 'FILESYSTEM_FAILURE' : undefined;
  yield { path: shown, why: `cannot be read: ${found.error.code}`, code };
}

// What openRoot refuses in the path of DIR itself. Returns the real path; undefined if a directory
// on the way may not be searched.
function* inOwnPath(directory) {
  const names = directory === '/' ? [] : directory.split('/').slice(1);
  if (directory === '/') yield { path: SLASH, why: 'cannot be a root', code: 'PATH_OUT_OF_ROOT' };
  for (let count = 0; count <= names.length; ++count) {
    const at = Buffer.from(`/${names.slice(0, count).join('/')}`);
    const found = look(at);
    if (found.error?.code === 'EACCES') return undefined;
    if (found.error) throw found.error;
    yield* obstaclesAt({ ...found, mountPoints: new Set() }, at);
  }
  return fs.realpathSync(directory, { encoding: 'buffer' });
}

// From a directory to one entry. Returns where that is; undefined if the way ends before it.
function* onTheWay(top, names, mountPoints) {
  let at = top;
  for (const [index, name] of names.entries()) {
    const shown = Buffer.from(names.slice(0, index + 1).join('/'));
    if (['', '.', '..'].includes(name) || name.includes('\\')) {
      yield { path: shown, why: 'cannot be passed to a call', code: 'PATH_OUT_OF_ROOT' };
      return undefined;
    }
    at = join(at, Buffer.from(name));
    const found = look(at);
    if (found.error?.code === 'ENOENT') {
      yield { path: shown, why: 'missing', code: 'NOT_FOUND' };
      return undefined;
    }
    if (index === names.length - 1) return at;
    yield* obstaclesAt({ ...found, mountPoints }, shown);
    if (found.stat?.isFile()) {
      yield { path: shown, why: 'file, not a directory', code: 'PATH_OUT_OF_ROOT' };
    }
    if (!found.stat?.isDirectory()) return undefined;
  }
  return at;
}

// Yields { path, why, code } for each obstacle. `path` is a Buffer, absolute for DIR and the
// directories above it, else relative to DIR. Throws if DIR is not there or is not a directory.
function* check(directory, below) {
  const top = yield* inOwnPath(path.resolve(directory));
  if (top === undefined || top.equals(SLASH)) return;
  if (!fs.statSync(top).isDirectory()) throw Object.assign(new Error(), { code: 'ENOTDIR' });
  const mountPoints = readMountPoints();
  const start = below === undefined ? top : yield* onTheWay(top, below.split('/'), mountPoints);
  if (start === undefined) return;
  for (const found of walk(start)) {
    // DIR itself was looked at with its path.
    if (found.at.equals(top)) continue;
    yield* obstaclesAt({ ...found, mountPoints }, found.at.subarray(top.length + 1));
  }
}

function escaped(character) {
  const code = character.codePointAt(0).toString(16);
  return code.length > 2 ? `\\u{${code}}` : `\\x${code.padStart(2, '0')}`;
}

// A name as text that is safe in a terminal. Characters that cannot be seen are escaped, and in a
// name that is not UTF-8 every byte that is not ASCII.
function show(bytes) {
  if (!isUtf8(bytes)) return bytes.toString('latin1').replace(/[^ -[\]-~]/g, escaped);
  return bytes.toString().replace(/\\|(?! )[\p{C}\p{Z}]/gu, escaped);
}

const line = ({ path: at, why, code }) => `${show(at)}: ${why}${code ? ` (${code})` : ''}`;

module.exports = { check, walk, line };

const CANNOT = { ENOENT: 'there is no such directory', ENOTDIR: 'it is not a directory' };

function main([directory, below, ...more]) {
  if (directory === undefined || more.length > 0) {
    console.error('usage: node check.js DIR [path/below/it]');
    return 2;
  }
  const given = show(Buffer.from(directory));
  let count = 0;
  try {
    for (const found of check(directory, below)) {
      console.log(line(found));
      count += 1;
    }
  } catch (error) {
    console.error(`cannot check ${given}: ${CANNOT[error.code] ?? error.stack}`);
    return 2;
  }
  const where = below === undefined ? given : `${given}, ${show(Buffer.from(below))}`;
  console.log(`${where}: ${count === 0 ? 'nothing' : count} found`);
  return count === 0 ? 0 : 1;
}

if (require.main === module) {
  // The reader may have seen enough, as `head` does.
  process.stdout.on('error', () => process.exit(1));
  process.exitCode = main(process.argv.slice(2));
}
