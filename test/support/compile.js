'use strict';

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const CACHE = path.join(__dirname, '../../build/Release/CMakeCache.txt');

// Compiles a C file of test/interpose/ as a shared library. Takes 0.1 s. The compiler is the one that
// built the module.
module.exports = function compile(name, library, ...options) {
  const source = path.join(__dirname, '../interpose', name);
  const [, compiler] = /^CMAKE_CXX_COMPILER:\w+=(.+)/m.exec(fs.readFileSync(CACHE, 'utf8'));
  execFileSync(compiler, ['-shared', '-fPIC', '-x', 'c', source, ...options, '-o', library]);
};
