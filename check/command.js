#!/usr/bin/env node
'use strict';

// The command `tarvek check`. Each obstacle is printed when it is found, so the memory of a check
// does not grow with their number, and a reader that has seen enough, such as `head`, ends it.

const { parseArgs } = require('node:util');
const { check, format } = require('./index.js');
const { version } = require('../package.json');

const HELP = `Usage: tarvek check DIR [PATH...]

Lists what makes calls of tarvek fail below DIR: symlinks, files with several hard links, special
files, files and directories that this user may not read, and so on. With PATH, only looks at that
entry, what is below it, and the way from DIR to it. Changes nothing.

Each line is a path, what is wrong there, and the code of the error that a call throws. A line
without a code is no obstacle: a temporary file of a write, running or crashed. A character that a
terminal could not show is escaped.

Run it as the user whose program failed. It shows the present state, so it cannot find a race.

Options:
  -h, --help     print this help
  -v, --version  print the version

Exit status: 0 if there are no obstacles, 1 if there are, 2 if nothing could be checked.
`;
const OPTIONS = {
  help: { type: 'boolean', short: 'h' },
  version: { type: 'boolean', short: 'v' },
};

// Waits, so that a slow reader slows the check down, and one that is gone ends it.
function print(text) {
  return new Promise((resolve, reject) => {
    process.stdout.write(text, (error) => (error ? reject(error) : resolve()));
  });
}

// A trailing slash comes from the completion of a shell.
const toNames = (given) => given.replace(/(?<=[^/])\/+$/, '').split('/');

async function runCheck(directory, paths) {
  let count = 0;
  for (const found of check(directory, ...paths.map(toNames))) {
    await print(`${format(found)}\n`);
    if (found.code !== null) count += 1;
  }
  const plural = count === 1 ? 'obstacle' : 'obstacles';
  await print(`${count === 0 ? 'no' : count} ${plural}\n`);
  return count === 0 ? 0 : 1;
}

async function main() {
  const { values, positionals } = parseArgs({ options: OPTIONS, allowPositionals: true });
  const [command, directory, ...paths] = positionals;
  if (values.help || values.version) {
    await print(values.help ? HELP : `${version}\n`);
    return 0;
  }
  if (command !== 'check' || !directory) {
    process.stderr.write('Usage: tarvek check DIR [PATH...]\nMore: tarvek --help\n');
    return 2;
  }
  return runCheck(directory, paths);
}

main().then(
  (status) => {
    process.exitCode = status;
  },
  (error) => {
    // The reader has seen enough.
    if (error.code === 'EPIPE') process.exit(1);
    process.stderr.write(`tarvek: ${error.message}\n`);
    process.exitCode = 2;
  },
);
// Without this, the error of a write ends the process before main() sees it.
process.stdout.on('error', () => {});
