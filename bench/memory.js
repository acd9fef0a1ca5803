'use strict';

// node memory.js OPERATION DIRECTORY
//
// Makes one call and prints by how many bytes it raised the peak of the process's memory. Needs a
// process of its own, since a peak never falls.

const { readFileSync } = require('node:fs');
const tarvek = require('..');

const peak = () => 1024 * /VmHWM:\s*(\d+)/.exec(readFileSync('/proc/self/status', 'utf8'))[1];

const [operation, directory] = process.argv.slice(2);
const handle = tarvek.openRoot(directory);
const before = peak();
const result = tarvek[operation](handle, operation === 'capture' ? [['leaf']] : ['leaf']);
console.log(peak() - before);
// Used after the measurement, so that the collector cannot take the result before.
if (!result) process.exitCode = 1;
