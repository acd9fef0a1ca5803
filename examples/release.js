'use strict';

// Releases. Files are staged, verified and published in releases/NAME. Then a symlink makes the
// whole release current in one step.
//
// tarvek neither replaces nor removes symlinks. So each switch makes a new symlink to the directory
// of a release: switch/00000001, switch/00000002, and so on. The highest number is current. A
// reader finds the old release or the new one, and two publishers cannot use the same number for
// two releases. To go back, make one more symlink to an older release. To delete old symlinks, use
// node:fs.

const fs = require('node:fs');
const path = require('node:path');
const tarvek = require('tarvek');

const LINKS = ['switch'];

// Stages one file, verifies it through a descriptor, and publishes exactly the verified bytes.
function publishFile(directory, root, release, name, body, verify) {
  const candidate = ['staging', release, name];
  tarvek.create(root, candidate, body);
  const flags = fs.constants.O_RDONLY | fs.constants.O_NOFOLLOW;
  const fd = fs.openSync(path.join(directory, ...candidate), flags);
  try {
    const staged = fs.readFileSync(fd);
    verify(name, staged);
    tarvek.publishVerified(root, fd, candidate, ['releases', release, name], staged);
  } finally {
    fs.closeSync(fd);
  }
}

function lastLink(root) {
  if (!tarvek.exists(root, LINKS)) return undefined;
  const numbers = tarvek.list(root, LINKS).filter((name) => /^\d{8}$/.test(name));
  return numbers.at(-1);
}

// Throws OPTIMISTIC_CONFLICT if another publisher took the number for another release: try again.
function switchTo(root, release) {
  const next = String(Number(lastLink(root) ?? 0) + 1).padStart(8, '0');
  tarvek.ensureRelativeSymlink(root, [...LINKS, next], ['releases', release]);
  return next;
}

// `directory` is an absolute path without symlinks. `files` maps single names, without "/", to
// bodies, and is not empty. Use each release name once. After a failure some files may have
// been published, but no symlink leads to them. Call discardStaged, and publish under another name.
function publishRelease(directory, release, files, verify) {
  const root = tarvek.openRoot(directory);
  try {
    for (const [name, body] of Object.entries(files)) {
      publishFile(directory, root, release, name, body, verify);
    }
    tarvek.remove(root, ['staging', release]);
    return switchTo(root, release);
  } finally {
    tarvek.close(root);
  }
}

// Removes the staged files of a failed attempt. A crash inside publishVerified can leave one file
// under both names, staged and published. tarvek refuses a file with two hard links, and a retry
// fails. Only node:fs can remove the staged name. unlinkSync resolves a path, so a swapped
// directory on the way would lead it elsewhere: call this only while no other process can change
// `staging`.
function discardStaged(directory, release) {
  const root = tarvek.openRoot(directory);
  const staged = ['staging', release];
  try {
    if (!tarvek.exists(root, staged)) return;
    for (const name of tarvek.list(root, staged)) {
      fs.unlinkSync(path.join(directory, ...staged, name));
    }
    tarvek.remove(root, staged);
  } finally {
    tarvek.close(root);
  }
}

// The name and the files of the current release; undefined before the first one. Only the last name
// in the text of the symlink is used, and looked up in `releases`. The symlink itself is not
// followed.
function currentRelease(directory) {
  const root = tarvek.openRoot(directory);
  try {
    const link = lastLink(root);
    if (link === undefined) return undefined;
    const name = path.basename(fs.readlinkSync(path.join(directory, ...LINKS, link)));
    return { name, files: tarvek.snapshot(root, ['releases', name]) };
  } finally {
    tarvek.close(root);
  }
}

module.exports = { publishRelease, discardStaged, switchTo, currentRelease };

if (require.main === module) {
  const os = require('node:os');

  const directory = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-release-')));
  const notEmpty = (name, body) => {
    if (body.length === 0) throw new Error(`${name} is empty`);
  };
  const show = () => {
    const { name, files } = currentRelease(directory);
    console.log(`current: ${name}, ${Object.keys(files).join(' and ')}`);
  };
  try {
    const page = Buffer.from('<h1>Hello</h1>\n');
    console.log('link:', publishRelease(directory, '1.0.0', { 'index.html': page }, notEmpty));
    show();
    const more = { 'index.html': page, 'app.js': Buffer.from('run();\n') };
    console.log('link:', publishRelease(directory, '1.1.0', more, notEmpty));
    show();
    try {
      publishRelease(directory, '1.2.0', { 'index.html': Buffer.alloc(0) }, notEmpty);
    } catch (error) {
      console.log('refused:', error.message);
    }
    show();
    const root = tarvek.openRoot(directory);
    console.log('back, link:', switchTo(root, '1.0.0'));
    tarvek.close(root);
    show();
    // As a crash inside publishVerified leaves it: one file under both names.
    const file = (top) => path.join(directory, top, '1.2.0', 'index.html');
    fs.mkdirSync(path.dirname(file('releases')));
    fs.linkSync(file('staging'), file('releases'));
    discardStaged(directory, '1.2.0');
    console.log('discarded; still staged:', fs.readdirSync(path.join(directory, 'staging')).length);
  } finally {
    fs.rmSync(directory, { recursive: true });
  }
}
