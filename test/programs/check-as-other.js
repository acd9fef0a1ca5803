'use strict';

// Checks a directory as a user who is not root. Prints of each obstacle its kind, its line, its code,
// and the code that capture throws, as JSON.

const { check, format } = require('../../check/index.js');
const tarvek = require('../support/tarvek.js');

if (process.getuid() === 0) {
  process.setgid(65534);
  process.setuid(65534);
}
const directory = JSON.parse(process.argv[2]);
const root = tarvek.openRoot(directory);

function codeOfCapture(name) {
  try {
    tarvek.capture(root, [[name]]);
    return null;
  } catch (error) {
    return error.code;
  }
}

const found = Array.from(check(directory), (obstacle) => {
  return [obstacle.kind, format(obstacle), obstacle.code, codeOfCapture(obstacle.path)];
});
console.log(JSON.stringify(found));
