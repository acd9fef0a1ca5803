'use strict';

// node limited-call.js PLAN: makes a call under limits for the process. PLAN is JSON:
//
//   root, operation, argument   the call
//   limits                      lists of options of the command `prlimit`: one call under each list
//   room                        bytes of free address space: calls until one fails
//
// Prints the number of results under each limit, and the code and message of the failure.

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const tarvek = require('../support/tarvek.js');

const { root, operation, argument, limits, room } = JSON.parse(process.argv[2]);
const handle = tarvek.openRoot(root);

const countDescriptors = () => fs.readdirSync('/proc/self/fd').length;
const limit = (...options) => execFileSync('prlimit', [`--pid=${process.pid}`, ...options]);

function printResults(most) {
  const results = [];
  let end = '';
  try {
    while (results.length < most) {
      results.push(tarvek[operation](handle, argument));
    }
  } catch ({ code, message }) {
    end = `, then ${code}, ${message}`;
  }
  fs.writeSync(1, `${results.length} results${end}\n`);
}

const before = countDescriptors();
for (const options of limits) {
  limit(...options);
  printResults(1);
}
assert.equal(countDescriptors(), before, 'open descriptors');

if (room !== undefined) {
  const [, kilobytes] = /^VmSize:\s+(\d+)/m.exec(fs.readFileSync('/proc/self/status', 'utf8'));
  limit(`--as=${kilobytes * 1024 + room}`);
  printResults(Infinity);
}
// Before anything else needs memory.
process.exit(0);
