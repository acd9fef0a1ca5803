'use strict';

// The files of test/operations/ by the names of their functions. test/README.md explains them.

const fs = require('node:fs');
const path = require('node:path');

const FOLDER = path.join(__dirname, '../operations');
const names = fs.readdirSync(FOLDER).map((file) => path.basename(file, '.js'));
const load = (name) => [name, require(path.join(FOLDER, name))];

module.exports = { operations: new Map(names.map(load)) };
