'use strict';

// Run in a process of its own: prints the bytes by which `node memory.js OPERATION DIRECTORY` raised
// the peak of the memory that the process had, with the result still held.

const { readFileSync } = require('node:fs');
const tarvek = require('..');

const peak = () => 1024 * /VmHWM:\s*(\d+)/.exec(readFileSync('/proc/self/status', 'utf8'))[1];

const [operation, directory] = process.argv.slice(2);
const handle = tarvek.openRoot(directory);
const before = peak();
const result = tarvek[operation](handle, operation === 'capture' ? [['leaf']] : ['leaf']);
console.log(peak() - before);
if (!result) process.exitCode = 1;
