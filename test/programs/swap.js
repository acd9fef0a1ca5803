'use strict';

// Exchanges two entries of a directory without pause, from its first output on: swap.js DIR A B

const tarvek = require('../support/tarvek.js');

const [directory, nameA, nameB] = process.argv.slice(2);
const root = tarvek.openRoot(directory);
process.stdout.write('ready');
for (;;) {
  try {
    tarvek.exchangeForTest(root, nameA, nameB);
  } catch {
    // The test is putting an entry back.
  }
}
