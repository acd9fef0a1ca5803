'use strict';

// Proves the package as its users get it: packs it, lints it, installs it from a lock file with
// scripts off into an empty folder, and there compiles against its types, runs it in every runtime
// it is for, and rebuilds it.
//
// The tools, 1.2 GB of them with a lock file of their own, stay in build/check-package.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const runOnArm64 = require('./check-package/arm64.js');

const root = path.join(__dirname, '..');
const probes = path.join(__dirname, 'check-package');
const tools = path.join(root, 'build', 'check-package');
const tool = (name) => path.join(tools, 'node_modules', name);

// All that belongs in the package; each line has to match something.
const CONTENTS = [
  /^(CMakeLists\.txt|CMakePresets\.json|package\.json|LICENSE)$/,
  /^(README|CHANGELOG|CONTRIBUTING|SECURITY)\.md$/,
  /^docs\/\w+\.md$/,
  /^index\.(js|d\.ts)$/,
  /^addon\/(\w+\.(cc|h)|exports\.map)$/,
  /^(confine|tree)\/\w+\.(cc|h)$/,
  /^ops\/\w+\.cc$/,
  /^examples\/[\w-]+\.js$/,
  /^prebuilds\/linux-x64\/tarvek\.node$/,
  /^prebuilds\/linux-arm64\/tarvek\.node$/,
];

// The oldest versions of 18 and 20 that the package is for, and the newest of the others.
const NODES = ['node-18', 'node-20', 'node-22', 'node-24', 'node-26'];
const RUNTIMES = [
  ...NODES.map((name) => ({ name, command: [`@runtime/${name}/bin/node`] })),
  { name: 'bun', command: ['@runtime/bun/bin/bun'] },
  { name: 'deno', command: ['@runtime/deno/deno', 'run', '--allow-all', '--no-lock'] },
];
const PROGRAMS = [
  'commonjs.cjs',
  'esm.mjs',
  'workers.cjs',
  'node_modules/tarvek/examples/tour.js',
  'node_modules/tarvek/examples/journal.js',
  'node_modules/tarvek/examples/release.js',
];

function run(command, args, options) {
  const ran = spawnSync(command, args, { cwd: root, encoding: 'utf8', ...options });
  if (ran.status === 0) return ran.stdout;
  const line = [command, ...args].join(' ');
  throw new Error(`failed: ${line}\n${ran.error ?? ''}${ran.stdout ?? ''}${ran.stderr ?? ''}`);
}

function step(what, body) {
  const start = performance.now();
  const result = body();
  console.log(`ok  ${what}  ${((performance.now() - start) / 1000).toFixed(1)} s`);
  return result;
}

const readJson = (file) => JSON.parse(fs.readFileSync(file, 'utf8'));
const npm = (args, options) => run('npm', [...args, '--loglevel=error'], options);

function installTools() {
  const wanted = path.join(probes, 'tools', 'package-lock.json');
  const installed = path.join(tools, 'installed.json');
  if (fs.existsSync(installed) && fs.readFileSync(installed).equals(fs.readFileSync(wanted)))
    return;
  fs.mkdirSync(tools, { recursive: true });
  for (const name of ['package.json', 'package-lock.json']) {
    fs.copyFileSync(path.join(probes, 'tools', name), path.join(tools, name));
  }
  // Forced, since one of the tools is for another processor.
  npm(['ci', '--ignore-scripts', '--force', '--no-audit', '--no-fund'], { cwd: tools });
  fs.copyFileSync(wanted, installed);
}

function pack(folder) {
  // In the background, since what the build prints would stand before the JSON.
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

// The linters need a newer Node than the package does.
function lint(tarball) {
  const node = tool('@runtime/node-24/bin/node');
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
  const { scripts } = readJson(path.join(folder, 'node_modules', 'tarvek', 'package.json'));
  const atInstall = ['preinstall', 'install', 'postinstall', 'prepare'];
  assert.deepEqual(
    atInstall.filter((name) => name in scripts),
    [],
    'scripts at install',
  );
  for (const name of fs.readdirSync(probes)) {
    if (name !== 'tools') fs.copyFileSync(path.join(probes, name), path.join(folder, name));
  }
}

function compileTypes(folder) {
  const consumers = ['consumer.cts', 'consumer.mts'];
  for (const name of consumers) {
    fs.copyFileSync(path.join(root, 'test', 'types', name), path.join(folder, name));
  }
  const options = ['--noEmit', '--strict', '--target', 'es2020', '--types', 'node'];
  for (const age of ['oldest', 'newest']) {
    const { version } = require(tool(`@${age}/typescript/package.json`));
    step(`types, TypeScript ${version}`, () => {
      const tsc = tool(`@${age}/typescript/bin/tsc`);
      const roots = ['--module', 'node16', '--moduleResolution', 'node16', '--typeRoots'];
      run(process.execPath, [tsc, ...options, ...roots, tool(`@${age}`), ...consumers], {
        cwd: folder,
      });
    });
  }
}

// The first example of the README in its two forms, as a reader copies them, and what they print.
function copyReadme(folder) {
  const readme = fs.readFileSync(path.join(folder, 'node_modules', 'tarvek', 'README.md'), 'utf8');
  const [, section] = /^## A first file$(.*?)^## /ms.exec(readme) ?? assert.fail('no such section');
  const blocks = [...section.matchAll(/^```\w+\n(.*?)^```$/gms)].map(([, text]) => text);
  const [commonjs, esm, printed] = blocks;
  fs.writeFileSync(path.join(folder, 'readme.cjs'), commonjs);
  fs.writeFileSync(path.join(folder, 'readme.mjs'), esm);
  return printed;
}

function runEverywhere(folder) {
  const printed = copyReadme(folder);
  for (const { name, command } of RUNTIMES) {
    const { version } = require(tool(`@runtime/${name}/package.json`));
    step(`${name}, ${version.replace('v', '')}`, () => {
      const [program, ...args] = command;
      // A runtime may keep a cache beneath its home, and a program that fails what it made.
      const env = { ...process.env, HOME: folder, TMPDIR: folder };
      const runFile = (file) => run(tool(program), [...args, file], { cwd: folder, env });
      for (const file of PROGRAMS) runFile(file);
      for (const file of ['readme.cjs', 'readme.mjs']) assert.equal(runFile(file), printed, file);
    });
  }
}

// Without a binary the package says how to build one; that command must do.
function rebuild(folder) {
  fs.rmSync(path.join(folder, 'node_modules', 'tarvek', 'prebuilds'), { recursive: true });
  const options = { cwd: folder, encoding: 'utf8' };
  const { stderr } = spawnSync(process.execPath, ['commonjs.cjs'], options);
  const [command] = /cmake -S .* && cmake --build .*/.exec(stderr) ?? assert.fail(stderr);
  const env = { ...process.env, CMAKE_BUILD_PARALLEL_LEVEL: String(os.availableParallelism()) };
  run('sh', ['-c', command], { cwd: folder, env });
  run(process.execPath, ['commonjs.cjs'], { cwd: folder });
}

function main() {
  const folder = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-package-')));
  try {
    step('tools', installTools);
    const { tarball, files } = step('npm pack', () => pack(folder));
    step(`contents, ${files.length} files`, () => checkContents(files));
    step('publint, attw', () => lint(tarball));
    step('npm ci', () => install(folder, tarball));
    compileTypes(folder);
    runEverywhere(folder);
    const arm64 = tool('@runtime/node-20-arm64/bin/node');
    step('node-20, arm64, emulated', () => runOnArm64(arm64, folder));
    step('rebuilt from the package', () => rebuild(folder));
  } finally {
    fs.rmSync(folder, { recursive: true });
  }
}

main();
