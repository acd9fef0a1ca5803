'use strict';

// What the package reports if it cannot be loaded: one message with what was found and what to do.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { nodeOf, deno, run, runRefused, step } = require('./support.js');

const PROGRAM = 'commonjs.cjs';
const node = (name, ...options) => [nodeOf(name), ...options, PROGRAM];
const denoWith = (...options) => [deno, 'run', '--no-lock', '--no-prompt', ...options, PROGRAM];

// A command that runs Node.js with a changed property of `process`.
function pretend(property, value) {
  const define = `Object.defineProperty(process, '${property}', { value: '${value}' })`;
  return [process.execPath, '-e', `${define}; require('./${PROGRAM}')`];
}

const BUILD = /^ {2}to do: .* build it:\n +cmake -S \S+ -B \S+ && cmake --build \S+$/m;
const ADDONS = /^ {2}to do: .* --allow-addons or without --permission, .* --no-addons$/m;

const ALL_FILES = ['--allow-fs-read=*', '--allow-fs-write=*'];

// What is wrong, the command, what the message says was found, and what it says to do.
const REFUSED = [
  ['another platform', pretend('platform', 'darwin'), /darwin x64/, /to do: .* on Linux/],
  ['another processor', pretend('arch', 'riscv64'), /this processor\n.* riscv64/, BUILD],
  ['musl', pretend('execPath', './musl'), /musl\n/, /`slim` image rather than `alpine`/],
  ['no Node-API 9', node('node-20.2'), /Node\.js 20\.2\.0/, /to do: {2}update Node\.js/],
  [
    'no addons',
    node('node-18', '--no-addons'),
    /may not load native/,
    /Node\.js without --no-addons$/m,
  ],
  [
    'permission model, Node.js 20',
    node('node-20', '--experimental-permission', ...ALL_FILES),
    /may not load native/,
    /to do: {2}update Node\.js, .* without --experimental-permission$/m,
  ],
  [
    'permission model, Node.js 22',
    node('node-22', '--permission', ...ALL_FILES),
    /may not load native/,
    ADDONS,
  ],
  [
    'permission model, Node.js 26',
    node('node-26', '--permission', ...ALL_FILES),
    /may not load native/,
    ADDONS,
  ],
  ['Deno without --allow-ffi', denoWith('--allow-read'), /ffi access/, /Deno with --allow-ffi/],
];
// Only the package and the data of the program, which are there. The executable may not be read.
const OWN_FILES = [`--allow-fs-read=${os.tmpdir()}`, `--allow-fs-write=${os.tmpdir()}`];
const LOADED = [
  node('node-26', '--permission', '--allow-addons', ...ALL_FILES),
  node('node-26', '--permission', '--allow-addons', ...OWN_FILES),
  denoWith('--allow-ffi', '--allow-read', '--allow-write', '--allow-env'),
];

// A local build comes first. If it does not load, that is an error: the packed binary is not tried.
function checkLocalBuild(folder) {
  const release = path.join(folder, 'node_modules/tarvek/build/Release');
  fs.mkdirSync(release, { recursive: true });
  fs.writeFileSync(path.join(release, 'tarvek.node'), 'no ELF file');
  const message = runRefused(process.execPath, [PROGRAM], { cwd: folder });
  assert.match(message, /build\/Release\/tarvek\.node/);
  assert.match(message, BUILD);
  fs.rmSync(path.dirname(release), { recursive: true });
}

// The loader reads the executable, and closes it.
function checkDescriptors(folder) {
  const program = `
    require('tarvek');
    const { dev, ino } = fs.statSync(process.execPath);
    const open = fs.readdirSync('/proc/self/fd');
    const found = open.map((fd) => fs.statSync('/proc/self/fd/' + fd, { throwIfNoEntry: false }));
    const isOpen = found.some((stat) => stat?.dev === dev && stat.ino === ino);
    assert.ok(!isOpen, 'the executable is still open');`;
  run(process.execPath, ['-e', program], { cwd: folder });
}

async function checkLoader(folder) {
  const options = { cwd: folder, env: { ...process.env, NO_COLOR: '1' } };
  fs.writeFileSync(path.join(folder, 'musl'), '\x7fELF...\0/lib/ld-musl-x86_64.so.1\0');
  for (const [what, [command, ...args], found, remedy] of REFUSED) {
    await step(`refused, ${what}`, () => {
      const message = runRefused(command, args, options);
      for (const line of [/tarvek: /, /^ {2}found: /m, /^ {2}needed: /m, found, remedy]) {
        assert.match(message, line);
      }
      // The runtime prints the cause below the message, and one without a value too.
      assert.doesNotMatch(message, /\bundefined\b/);
      if (remedy !== BUILD) assert.doesNotMatch(message, /cmake/);
    });
  }
  for (const [command, ...args] of LOADED) run(command, args, options);
  checkDescriptors(folder);
  checkLocalBuild(folder);
}

module.exports = { checkLoader };
