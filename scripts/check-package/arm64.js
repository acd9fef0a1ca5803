'use strict';

// Runs the package's arm64 binary on a machine with another processor: in an official Node for arm64,
// under an emulator of the processor. The kernel is that of this machine.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const path = require('node:path');

const CROSS = '/usr/aarch64-linux-gnu/lib';
const LOADER = path.join(CROSS, 'ld-linux-aarch64.so.1');
// Through the loader of the cross libraries. The emulator can also find them by a prefix. But it would
// then look for "/" beneath that prefix too, and "/" is where the walk of openRoot starts.
const EMULATOR = ['qemu-aarch64-static', LOADER, '--library-path', CROSS];
const MISSING = `${EMULATOR[0]} was not found; on Debian: apt-get install qemu-user-static`;

const PROGRAMS = [
  'commonjs.cjs',
  'esm.mjs',
  'workers.cjs',
  'node_modules/tarvek/examples/tour.js',
  // Flags of open and the layout of `struct stat` differ from those of x86-64.
  path.join(__dirname, '../../test/hostile.test.js'),
];

// Runs the programs in the directory where the package was installed.
module.exports = function runOnArm64(node, folder) {
  const binary = path.join(folder, 'node_modules/tarvek/prebuilds/linux-arm64/tarvek.node');
  const env = { ...process.env, HOME: folder, TMPDIR: folder, TARVEK_MODULE: binary };
  const [command, ...args] = [...EMULATOR, node];
  for (const file of PROGRAMS) {
    const ran = spawnSync(command, [...args, file], { cwd: folder, env, encoding: 'utf8' });
    if (ran.error?.code === 'ENOENT') assert.fail(MISSING);
    assert.equal(ran.status, 0, `${file} on arm64: ${ran.error ?? ''}${ran.stdout}${ran.stderr}`);
  }
};
