'use strict';

// Prepares a fresh clone so that a command can run: names a missing tool, installs the packages of the
// lock file, builds. Takes a few hundred milliseconds if there is nothing to do.
//
//   node scripts/setup.js NAME...
//
// A NAME is a preset of CMakePresets.json, which is built, or a tool that must be on the PATH.

const { spawnSync } = require('node:child_process');
const { existsSync, statSync } = require('node:fs');
const { availableParallelism } = require('node:os');
const path = require('node:path');
const { configurePresets } = require('../CMakePresets.json');

const root = path.join(__dirname, '..');

function fail(message) {
  console.error(`tarvek: ${message}`);
  process.exit(1);
}

function output(command, args, input) {
  const run = spawnSync(command, args, { input, encoding: 'utf8' });
  return run.status === 0 ? run.stdout : undefined;
}

function requireTool(tool) {
  if (output(tool, ['--version']) !== undefined) return;
  fail(`${tool} is needed and was not found; on Debian: apt-get install ${tool}`);
}

// Debian names the package of a cross compiler after the processor. That of the native one is g++.
function debianPackage(compiler) {
  const [, processor] = /^(\w+)-linux-gnu-g\+\+$/.exec(compiler) ?? [];
  const own = { x64: 'x86_64', arm64: 'aarch64' }[process.arch];
  if (!processor || processor === own) return 'g++';
  return `g++-${processor.replace('_', '-')}-linux-gnu`;
}

// The compiler that a preset names. Otherwise the one that CMake takes: CXX, which may contain
// arguments, or else the first compiler found, even if another one is newer.
function requireCompiler(named) {
  const chosen = named ?? process.env.CXX;
  const commands = chosen ? [chosen] : ['c++', 'g++', 'clang++'];
  const words = commands.map((command) => (existsSync(command) ? [command] : command.split(' ')));
  const found = words.find(([command]) => output(command, ['--version']) !== undefined);
  const check = ['-std=c++20', '-fsyntax-only', '-x', 'c++', '-'];
  const [command, ...args] = found ?? [];
  if (found && output(command, [...args, ...check], '#include <compare>\n') !== undefined) return;
  const what = named ?? 'a C++20 compiler';
  fail(`${what} is needed and was not found; on Debian: apt-get install ${debianPackage(named)}`);
}

function requireBuildTools(presets) {
  const version = /version (\d+)\.(\d+)/.exec(output('cmake', ['--version']) ?? '');
  if (!version || Number(version[1]) * 100 + Number(version[2]) < 322) {
    fail('cmake 3.22 or newer is needed and was not found; on Debian: apt-get install cmake');
  }
  for (const { cacheVariables } of presets) requireCompiler(cacheVariables.CMAKE_CXX_COMPILER);
  if (!process.env.CMAKE_GENERATOR) requireTool('make');
}

// Shows warnings at once, and the progress report only if the command fails.
function quietly(command, args) {
  const stdio = ['ignore', 'pipe', 'inherit'];
  const run = spawnSync(command, args, { cwd: root, stdio, encoding: 'utf8' });
  if (run.status === 0) return;
  process.stderr.write(run.stdout ?? '');
  fail(`failed: ${command} ${args.join(' ')}${run.error ? ` (${run.error.message})` : ''}`);
}

function installPackages() {
  const modified = (name) => statSync(path.join(root, name), { throwIfNoEntry: false })?.mtimeMs;
  const installed = modified('node_modules/.package-lock.json');
  if (installed !== undefined && installed >= modified('package-lock.json')) return;
  console.error('tarvek: installing packages');
  quietly('npm', ['ci', '--ignore-scripts', '--loglevel=error']);
}

function build({ name, binaryDir }) {
  const module = `${binaryDir}/tarvek.node`;
  if (!existsSync(path.join(root, module))) console.error(`tarvek: building ${module}`);
  quietly('cmake', ['--preset', name]);
  const jobs = process.env.CMAKE_BUILD_PARALLEL_LEVEL ?? String(availableParallelism());
  quietly('cmake', ['--build', '--preset', name, '--parallel', jobs]);
}

const names = process.argv.slice(2);
const presets = configurePresets.filter(({ name }) => names.includes(name));
const tools = names.filter((name) => !presets.some((preset) => preset.name === name));
for (const tool of tools) requireTool(tool);
if (presets.length > 0) requireBuildTools(presets);
installPackages();
for (const preset of presets) build(preset);
