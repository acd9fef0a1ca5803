'use strict';

// Makes calls one after the other on a root: calls.js ROOT [[NAME, ARGUMENT...]...], in JSON. "FILE" stands
// for the result of the first call. Prints the message of each failure. watch-fs.js runs in the threads.

const path = require('node:path');
const threads = require('node:worker_threads');

const preload = { env: process.env, execArgv: ['--require', path.join(__dirname, 'watch-fs.js')] };
threads.Worker = class extends threads.Worker {
  constructor(file, options) {
    super(file, { ...options, ...preload });
  }
};
const promises = require('../../promises/index.js');

async function main(directory, calls) {
  const root = await promises.openRoot(directory);
  const results = [];
  for (const [name, ...args] of JSON.parse(calls)) {
    const known = args.map((argument) => (argument === 'FILE' ? results[0] : argument));
    const result = await promises[name](root, ...known).catch(({ message }) =>
      console.log(message),
    );
    results.push(result);
  }
  await results[0]?.close?.();
  await promises.close(root);
}

main(...process.argv.slice(2));
