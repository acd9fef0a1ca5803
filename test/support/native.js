'use strict';

const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const flags = '-x c -std=c11 -O1 -Wall -Wextra -Werror'.split(' ');

// Where the C source beneath test/ is compiled to, by the compiler that builds the module; that one
// is a C compiler as well.
function compile(source, ...options) {
  const input = path.join(__dirname, '..', source);
  const output = path.join(__dirname, '../../build/test', path.parse(source).name);
  const modified = (name) => fs.statSync(name, { throwIfNoEntry: false })?.mtimeMs ?? 0;
  if (modified(output) > modified(input)) return output;
  const commands = [process.env.CXX ?? 'c++', 'g++', 'clang++'].map((line) => line.split(' '));
  const isThere = ([command]) => !spawnSync(command, ['--version']).error;
  const [command, ...rest] = commands.find(isThere) ?? commands[0];
  // Test files run side by side: each makes its own, and the last one stays.
  const own = `${output}.${process.pid}`;
  fs.mkdirSync(path.dirname(output), { recursive: true });
  execFileSync(command, [...rest, ...flags, '-o', own, input, ...options]);
  fs.renameSync(own, output);
  return output;
}

module.exports = { compile };
