'use strict';

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const BUILD = path.join(__dirname, '../../build');
const FLAGS = '-x c -std=c11 -O1 -Wall -Wextra -Werror'.split(' ');

// Where the C source beneath test/ is compiled to, by the compiler that built the module; that one
// is a C compiler as well.
function compile(source, ...options) {
  const input = path.join(__dirname, '..', source);
  const output = path.join(BUILD, 'test', path.parse(source).name);
  const modified = (name) => fs.statSync(name, { throwIfNoEntry: false })?.mtimeMs ?? 0;
  if (modified(output) > modified(input)) return output;
  const cache = fs.readFileSync(path.join(BUILD, 'Release/CMakeCache.txt'), 'utf8');
  const [, compiler] = /^CMAKE_CXX_COMPILER:\w+=(.+)/m.exec(cache);
  // Test files run side by side: each makes its own, and the last one stays.
  const own = `${output}.${process.pid}`;
  fs.mkdirSync(path.dirname(output), { recursive: true });
  execFileSync(compiler, [...FLAGS, '-o', own, input, ...options]);
  fs.renameSync(own, output);
  return output;
}

module.exports = { compile };
