'use strict';

// Compiles programs against the types: with the oldest and the newest TypeScript, each with the types
// of Node.js of the same age and without them.

const fs = require('node:fs');
const path = require('node:path');
const { tool, run, step } = require('./support.js');

const TYPES = path.join(__dirname, 'types');
const OPTIONS = '--noEmit --strict --target es2020 --module node16 --moduleResolution node16';

async function compileTypes(folder) {
  const files = fs.readdirSync(TYPES);
  for (const name of files) fs.copyFileSync(path.join(TYPES, name), path.join(folder, name));
  const withoutNode = files.filter((name) => name.startsWith('without-node.'));
  const withNode = files.filter((name) => !withoutNode.includes(name));

  for (const age of ['oldest', 'newest']) {
    const { version } = require(tool(`@${age}/typescript/package.json`));
    const compile = (...args) => {
      const tsc = tool(`@${age}/typescript/bin/tsc`);
      run(process.execPath, [tsc, ...OPTIONS.split(' '), ...args], { cwd: folder });
    };
    await step(`types, TypeScript ${version}`, () => {
      compile('--typeRoots', tool(`@${age}`), ...withNode);
      compile(...withoutNode);
    });
  }
}

module.exports = { compileTypes };
