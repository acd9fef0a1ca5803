'use strict';

// The binary in several JavaScript environments of one process: two workers at a time, one more
// when these are gone, and the main thread beside them all.

const { Worker, isMainThread } = require('node:worker_threads');
const exercise = require('./exercise.cjs');

async function finish(worker) {
  const code = await new Promise((resolve, reject) =>
    worker.on('exit', resolve).on('error', reject),
  );
  if (code !== 0) throw new Error(`a worker ended with ${code}`);
}

async function main() {
  const pair = [new Worker(__filename), new Worker(__filename)].map(finish);
  exercise(require('tarvek'));
  await Promise.all(pair);
  await finish(new Worker(__filename));
  exercise(require('tarvek'));
}

if (isMainThread) main();
else exercise(require('tarvek'));
