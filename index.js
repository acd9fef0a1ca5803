'use strict';

const { existsSync } = require('node:fs');
const path = require('node:path');

// A build made here wins over the one the package brought. Whichever is there first is the one:
// falling back from a build that does not load would hide why it does not.
const builds = ['build/Release/tarvek.node', 'prebuilds/linux-x64/tarvek.node'];

function libc() {
  const header = process.report?.getReport().header;
  return header?.glibcVersionRuntime ? `glibc ${header.glibcVersionRuntime}` : 'not glibc';
}

function loadError(reason, cause) {
  const directory = path.join(__dirname, 'build', 'Release');
  const message = [
    `tarvek: ${reason}`,
    `  found:    ${process.platform} ${process.arch}, ${libc()}, Node.js ${process.versions.node}`,
    '  needed:   linux x64, glibc 2.28 or newer, Node.js 18.17 or newer (of 20: 20.3 or newer)',
    '  to build: with CMake 3.22 or newer and a C++20 compiler, run',
    `            cmake -S "${__dirname}" -B "${directory}" && cmake --build "${directory}"`,
  ];
  return new Error(message.join('\n'), { cause });
}

function load() {
  const build = builds.find((name) => existsSync(path.join(__dirname, name)));
  if (!build) throw loadError(`no native module: neither ${builds.join(' nor ')} is there`);
  try {
    return require(path.join(__dirname, build));
  } catch (cause) {
    throw loadError(`${build} could not be loaded: ${cause.message}`, cause);
  }
}

// The functions in an object of their own, where they can be seen, enumerated and mocked; the native
// module's properties cannot. Both lists are written out: Node.js and bundlers read the names that
// `import` offers from the text of the last one.
const {
  open,
  openRoot,
  openRelative,
  close,
  rootIdentity,
  exists,
  list,
  capture,
  snapshot,
  read,
  write,
  create,
  append,
  ensureDirectory,
  ensureRelativeSymlink,
  remove,
  removeIfEquals,
  move,
  publishVerified,
  setTestHook,
  exchangeForTest,
} = load();

module.exports = {
  open,
  openRoot,
  openRelative,
  close,
  rootIdentity,
  exists,
  list,
  capture,
  snapshot,
  read,
  write,
  create,
  append,
  ensureDirectory,
  ensureRelativeSymlink,
  remove,
  removeIfEquals,
  move,
  publishVerified,
  setTestHook,
  exchangeForTest,
};
