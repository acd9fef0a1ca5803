'use strict';

// Opens a root in the main thread and in a thread of its own, and closes neither.

const { isMainThread, Worker } = require('node:worker_threads');
const { openRoot } = require('../../promises/index.js');

openRoot('/tmp').then(() => console.log('open'));
if (isMainThread) new Worker(__filename);
