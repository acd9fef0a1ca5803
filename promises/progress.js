'use strict';

// capture with signs of life, by the test hook of the thread. At most ten times a second, so that a
// caller with more to do is not kept busy by them.

const tarvek = require('../index.js');

const PAUSE = 100;
const COUNTERS = { 'capture-file-read': 'files', 'capture-directory-read': 'directories' };

function captureWithProgress(handle, paths, tell) {
  const counts = { files: 0, directories: 0 };
  let last = performance.now();
  tarvek.setTestHook(({ point, segment }) => {
    const counter = COUNTERS[point];
    if (counter === undefined) return;
    ++counts[counter];
    const now = performance.now();
    if (now - last < PAUSE) return;
    last = now;
    tell({ ...counts, path: segment });
  });
  try {
    return tarvek.capture(handle, paths);
  } finally {
    tarvek.setTestHook();
  }
}

module.exports = { captureWithProgress };
