'use strict';

// In a thread: writes files into a directory of its own, below workerData, and posts the names of
// their temporary files.

const fs = require('node:fs');
const path = require('node:path');
const { parentPort, threadId, workerData } = require('node:worker_threads');
const tarvek = require('../support/tarvek.js');

const directory = path.join(workerData, `thread-${threadId}`);
fs.mkdirSync(directory);
const handle = tarvek.openRoot(directory);
const names = [];
for (let i = 0; i < 200; ++i) {
  tarvek.write(handle, [`${i}`], Buffer.from('x'), (stage) => {
    if (stage !== 'before-file-rename') return;
    names.push(...fs.readdirSync(directory).filter((name) => name.startsWith('.tarvek-')));
  });
}
tarvek.close(handle);
fs.rmSync(directory, { recursive: true });
parentPort.postMessage(names);
