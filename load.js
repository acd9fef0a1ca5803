'use strict';

// Loads the native module. Before that, refuses runtimes that it would crash. Every failure is one
// error that says what was found, what is needed and what to do.
//
// The paths of the binaries are literal, so that bundlers and file tracers include them.

const fs = require('node:fs');
const path = require('node:path');

const packed = {
  x64: () => require('./prebuilds/linux-x64/tarvek.node'),
  arm64: () => require('./prebuilds/linux-arm64/tarvek.node'),
};

// The directory of this file; undefined in a bundle, where the path is missing or relative. It does
// not use `__dirname`: file tracers include every file that a program looks for beneath that.
const folder = path.isAbsolute(module.path ?? '') ? module.path : undefined;

// Reading the disk may be forbidden. That must not hide the original failure.
function orUndefined(look) {
  try {
    return look();
  } catch {
    return undefined;
  }
}

function failure(problem, remedy, cause) {
  const { bun, deno, node } = process.versions;
  const runtime = (bun && `Bun ${bun}`) ?? (deno && `Deno ${deno}`) ?? `Node.js ${node}`;
  const message = [
    `tarvek: ${problem}`,
    `  found:  ${process.platform} ${process.arch}, ${runtime}`,
    '  needed: linux x64 or arm64, glibc 2.28 or newer, Node.js 18.17 or newer of 18, or 20.3 or newer',
    `  to do:  ${remedy}`,
  ];
  return new Error(message.join('\n'), cause && { cause });
}

// The command that builds the module, or other advice where its sources are not beside this file.
function howToBuild(otherwise) {
  const hasSources =
    folder && orUndefined(() => fs.existsSync(path.join(folder, 'CMakeLists.txt')));
  if (!hasSources) return otherwise;
  const build = path.join(folder, 'build', 'Release');
  return [
    'with CMake 3.22 or newer and a C++20 compiler, build it:',
    `          cmake -S "${folder}" -B "${build}" && cmake --build "${build}"`,
  ].join('\n');
}

// Versions of Node.js differ in the names of the flags, and refuse to start with one of another version.
function howToAllow() {
  if (process.versions.deno) return 'start Deno with --allow-ffi';
  // Only there if the permission model is on.
  if (process.permission === undefined) return 'start Node.js without --no-addons';
  const flags = process.allowedNodeEnvironmentFlags;
  const model = flags.has('--permission') ? '--permission' : '--experimental-permission';
  if (flags.has('--allow-addons')) {
    return `start Node.js with --allow-addons or without ${model}, and without --no-addons`;
  }
  return `update Node.js, because this version has no --allow-addons, or start it without ${model}`;
}

function loadFailure(cause) {
  const [reason] = cause.message.split('\n');
  // Deno's error has a name of its own and no code.
  if (cause.code === 'ERR_DLOPEN_DISABLED' || cause.name === 'NotCapable') {
    return failure(`this process may not load native modules: ${reason}`, howToAllow(), cause);
  }
  const remedy = howToBuild(
    'keep tarvek out of the bundle (as "external"), or copy its folder prebuilds beside the bundle',
  );
  return failure(`the native module does not load: ${reason}`, remedy, cause);
}

function attempt(requireBinary) {
  try {
    const binary = requireBinary();
    if (typeof binary === 'string') throw new Error(`a bundler put a path in its place: ${binary}`);
    return binary;
  } catch (cause) {
    throw loadFailure(cause);
  }
}

// A build that exists and does not load is an error: the packed binary would hide the reason. In a
// bundle any error means that the bundler found no build.
function requireLocalBuild() {
  try {
    return require('./build/Release/tarvek.node');
  } catch (error) {
    if (folder && error.code !== 'MODULE_NOT_FOUND') throw error;
  }
}

function checkRuntime() {
  if (process.platform !== 'linux') {
    throw failure('it runs on Linux only', 'run it on Linux, for example in a container');
  }
  // Node.js 20.0 to 20.2 end with SIGSEGV when they load the module.
  if (process.versions.napi < 9) {
    throw failure('this Node.js is too old: it lacks Node-API 9', 'update Node.js');
  }
}

// An executable names its dynamic linker, and so its C library, near its start. Skipped in
// Deno, because Deno would ask the user for permission.
function usesMusl() {
  if (process.versions.deno) return false;
  const start = Buffer.alloc(4096);
  const fd = fs.openSync(process.execPath);
  fs.readSync(fd, start);
  fs.closeSync(fd);
  return start.includes('/ld-musl-');
}

function checkPacked() {
  if (!packed[process.arch]) {
    const remedy = howToBuild('run it on x64 or arm64');
    throw failure('the package has no binary for this processor', remedy);
  }
  if (orUndefined(usesMusl)) {
    const remedy = 'use an image with glibc: the `slim` image rather than `alpine`';
    throw failure('the C library of this system is musl', remedy);
  }
}

// A local build wins over the binaries in the package.
module.exports = function load() {
  checkRuntime();
  const built = attempt(requireLocalBuild);
  if (built) return built;
  checkPacked();
  return attempt(packed[process.arch]);
};
