'use strict';

// Checks the package as its users get it: packs it, lints it, and installs it from a lock file, without
// scripts, into an empty directory. There, the steps in check-package/ compile programs against it, run
// them in every runtime, compile them to CommonJS, bundle them, try to load it where that must fail, and
// build it again.
//
// The tools take 1.6 GB, have a lock file of their own, and stay in build/check-package.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const runOnArm64 = require('./check-package/arm64.js');
const { runBundled } = require('./check-package/bundlers.js');
const { runCompiled } = require('./check-package/compilers.js');
const { checkLoader } = require('./check-package/loader.js');
const { runEverywhere } = require('./check-package/runtimes.js');
const { tools, tool, nodeOf, run, step } = require('./check-package/support.js');
const { compileTypes } = require('./check-package/types.js');

const PINNED = path.join(__dirname, 'check-package', 'tools');
const PROGRAMS = path.join(__dirname, 'check-package', 'programs');

// Everything that belongs in the package. Each line must match something.
const CONTENTS = [
  /^(CMakeLists\.txt|CMakePresets\.json|package\.json|LICENSE)$/,
  /^(README|CHANGELOG|CONTRIBUTING|SECURITY)\.md$/,
  /^docs\/(\w+\.md|performance\.svg)$/,
  /^(index\.js|index\.d\.ts|load\.js)$/,
  /^(check|promises)\/([\w-]+\.js|index\.d\.ts)$/,
  /^addon\/(\w+\.(cc|h)|exports\.map)$/,
  /^(confine|tree)\/\w+\.(cc|h)$/,
  /^ops\/\w+\.cc$/,
  /^examples\/[\w-]+\.js$/,
  /^prebuilds\/linux-x64\/tarvek\.node$/,
  /^prebuilds\/linux-arm64\/tarvek\.node$/,
];

const readJson = (file) => JSON.parse(fs.readFileSync(file, 'utf8'));
const npm = (args, options) => run('npm', [...args, '--loglevel=error'], options);

function installTools() {
  const wanted = path.join(PINNED, 'package-lock.json');
  const installed = path.join(tools, 'installed.json');
  if (fs.existsSync(installed) && fs.readFileSync(installed).equals(fs.readFileSync(wanted)))
    return;
  fs.mkdirSync(tools, { recursive: true });
  for (const name of ['package.json', 'package-lock.json']) {
    fs.copyFileSync(path.join(PINNED, name), path.join(tools, name));
  }
  // With --force, because npm would refuse the arm64 runtime on this processor.
  npm(['ci', '--ignore-scripts', '--force', '--no-audit', '--no-fund'], { cwd: tools });
  fs.copyFileSync(wanted, installed);
}

function pack(folder) {
  // In the background, because the output of the build would come before the JSON.
  const args = ['pack', '--json', '--foreground-scripts=false', '--pack-destination', folder];
  const [{ filename, files }] = JSON.parse(npm(args));
  return { tarball: path.join(folder, filename), files: files.map((file) => file.path) };
}

function checkContents(files) {
  const belongs = (file) => CONTENTS.some((pattern) => pattern.test(file));
  assert.deepEqual(
    files.filter((file) => !belongs(file)),
    [],
    'files that do not belong in the package',
  );
  for (const pattern of CONTENTS) {
    assert.ok(
      files.some((file) => pattern.test(file)),
      `no file matches ${pattern}`,
    );
  }
}

// The linters need a newer Node than the package.
function lint(tarball) {
  const node = nodeOf('node-24');
  const found = run(node, [tool('publint/src/cli.js'), 'run', '--strict', tarball]);
  assert.match(found, /All good!/, found);
  const attw = tool('@arethetypeswrong/cli/dist/index.js');
  run(node, [attw, '--no-definitely-typed', '--format=ascii', '--no-emoji', tarball]);
}

function install(folder, tarball) {
  const manifest = { private: true, dependencies: { tarvek: `file:${path.basename(tarball)}` } };
  fs.writeFileSync(path.join(folder, 'package.json'), JSON.stringify(manifest));
  const options = ['--ignore-scripts', '--engine-strict', '--offline', '--no-audit', '--no-fund'];
  npm(['install', '--package-lock-only', ...options], { cwd: folder });
  npm(['ci', ...options], { cwd: folder });

  const lock = readJson(path.join(folder, 'package-lock.json'));
  assert.deepEqual(Object.keys(lock.packages), ['', 'node_modules/tarvek'], 'tarvek and no more');
  const ours = readJson(path.join(folder, 'node_modules', 'tarvek', 'package.json'));
  const platforms = [['linux'], ['x64', 'arm64'], ['glibc']];
  assert.deepEqual([ours.os, ours.cpu, ours.libc], platforms, 'npm refuses other platforms');
  const atInstall = ['preinstall', 'install', 'postinstall', 'prepare'];
  assert.deepEqual(
    atInstall.filter((name) => name in ours.scripts),
    [],
    'scripts at install',
  );
  fs.cpSync(PROGRAMS, folder, { recursive: true });
}

// Without a binary, the package says how to build one. That command must work.
function rebuild(folder) {
  fs.rmSync(path.join(folder, 'node_modules', 'tarvek', 'prebuilds'), { recursive: true });
  const options = { cwd: folder, encoding: 'utf8' };
  const { stderr } = spawnSync(process.execPath, ['commonjs.cjs'], options);
  const [command] = /cmake -S .* && cmake --build .*/.exec(stderr) ?? assert.fail(stderr);
  const env = { ...process.env, CMAKE_BUILD_PARALLEL_LEVEL: String(os.availableParallelism()) };
  run('sh', ['-c', command], { cwd: folder, env });
  run(process.execPath, ['commonjs.cjs'], { cwd: folder });
}

// jest.spyOn is this function of its mock library.
function spy(folder) {
  const { ModuleMocker } = require(tool('jest-mock'));
  const tarvek = require(path.join(folder, 'node_modules', 'tarvek'));
  const original = tarvek.open;
  new ModuleMocker(globalThis).spyOn(tarvek, 'open').mockReturnValue('mocked');
  assert.equal(tarvek.open(), 'mocked');
  tarvek.open.mockRestore();
  assert.equal(tarvek.open, original);
}

// npm creates the link to the command and makes its file executable.
function runCommand(folder) {
  const found = run('npx', ['--offline', 'tarvek', 'check', 'node_modules/tarvek'], {
    cwd: folder,
  });
  assert.equal(found, 'no obstacles\n');
}

async function main() {
  const folder = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-package-')));
  try {
    await step('tools', installTools);
    const { tarball, files } = await step('npm pack', () => pack(folder));
    await step(`contents, ${files.length} files`, () => checkContents(files));
    await step('publint, attw', () => lint(tarball));
    await step('npm ci', () => install(folder, tarball));
    await step('npx tarvek check', () => runCommand(folder));
    await compileTypes(folder);
    await runEverywhere(folder);
    await step('node-20, arm64, emulated', () => runOnArm64(nodeOf('node-20-arm64'), folder));
    await step('spied on', () => spy(folder));
    await runCompiled(folder);
    await runBundled(folder);
    await checkLoader(folder);
    await step('rebuilt from the package', () => rebuild(folder));
  } finally {
    fs.rmSync(folder, { recursive: true });
  }
}

main();
