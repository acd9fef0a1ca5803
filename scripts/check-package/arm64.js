'use strict';

// Runs the package's arm64 binary on a machine with another processor: in an official Node for arm64,
// under an emulator of the processor. The kernel is that of this machine.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { run } = require('./support.js');

const CROSS = '/usr/aarch64-linux-gnu/lib';
const LOADER = path.join(CROSS, 'ld-linux-aarch64.so.1');
// Through the loader of the cross libraries. The emulator can also find them by a prefix. But it would
// then look for "/" beneath that prefix too, and "/" is where the walk of openRoot starts.
const EMULATOR = ['qemu-aarch64-static', LOADER, '--library-path', CROSS];
const MISSING = `${EMULATOR[0]} was not found; on Debian: apt-get install qemu-user-static`;

// More than the report of all tests.
const MANY = 64 << 20;

const PROGRAMS = ['commonjs.cjs', 'esm.mjs', 'workers.cjs', 'node_modules/tarvek/examples/tour.js'];

// The flags of open and the layout of `struct stat` differ from those of x86-64. These tests cannot run
// under the emulator: limits.test.js, because memory and address space are those of the emulator;
// package.test.js, which loads the build of this processor; examples.test.js and docs.test.js, whose
// programs start Node themselves.
const TESTS = ['contents', 'faults', 'operations', 'threads'];
const TEST = path.join(__dirname, '../../test');
const COMPILER = 'aarch64-linux-gnu-g++';

// The library that faults.test.js preloads. There it cannot compile one and restart itself.
function compileInterposer(folder) {
  const library = path.join(folder, 'faults.so');
  const source = path.join(TEST, 'interpose/faults.c');
  run(COMPILER, ['-shared', '-fPIC', '-Wl,-z,lazy', '-x', 'c', source, '-ldl', '-o', library]);
  return library;
}

// Runs the programs in the directory where the package was installed.
module.exports = function runOnArm64(node, folder) {
  const binary = path.join(folder, 'node_modules/tarvek/prebuilds/linux-arm64/tarvek.node');
  const interposer = compileInterposer(folder);
  const env = {
    ...process.env,
    HOME: folder,
    TMPDIR: folder,
    TARVEK_MODULE: binary,
    TARVEK_TEST_NODE: [...EMULATOR, node].join('\n'),
    TARVEK_TEST_PRELOADED: interposer,
  };
  const runFile = (file, ...options) => {
    const [command, ...args] = [...EMULATOR, ...options, node, file];
    const ran = spawnSync(command, args, { cwd: folder, env, encoding: 'utf8', maxBuffer: MANY });
    if (ran.error?.code === 'ENOENT') assert.fail(MISSING);
    assert.equal(ran.status, 0, `${file} on arm64: ${ran.error ?? ''}${ran.stdout}${ran.stderr}`);
  };
  for (const file of PROGRAMS) runFile(file);
  for (const name of TESTS) {
    runFile(
      path.join(TEST, `${name}.test.js`),
      ...(name === 'faults' ? ['--preload', interposer] : []),
    );
  }
};
