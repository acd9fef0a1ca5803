'use strict';

// Releases: files are staged, verified and published under releases/NAME, and a symbolic link then
// makes the whole release current in one step.
//
// No function of tarvek replaces a link or removes one, so the switch is a new link and never a
// changed one: switch/00000001, switch/00000002, and so on, each to the directory of a release; the
// last one counts. A reader finds the old release or the new, two publishers cannot both have the
// same number, and going back is one more link to an older release. Old links and releases go by
// other means, once nobody needs them.

const fs = require('node:fs');
const path = require('node:path');
const tarvek = require('tarvek');

const LINKS = ['switch'];

// Stages one file, verifies it through a descriptor, and publishes just what was verified.
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

// Throws OPTIMISTIC_CONFLICT when another publisher made the same switch to another release.
function switchTo(root, release) {
  const next = String(Number(lastLink(root) ?? 0) + 1).padStart(8, '0');
  tarvek.ensureRelativeSymlink(root, [...LINKS, next], ['releases', release]);
  return next;
}

// `files` maps names to bodies. A name of a release is used once: what a failed attempt published
// stays, but no link leads to it, and the next attempt takes another name.
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

// The name and the files of the current release, undefined before the first. The link's text only
// gives a name: this is looked up beneath `releases`, wherever the link itself may lead.
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

module.exports = { publishRelease, switchTo, currentRelease };

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
  } finally {
    fs.rmSync(directory, { recursive: true });
  }
}
