'use strict';

// Makes a call on the file f. At the hook point, a FIFO takes the place of the file. The process
// never ends if the call then waits for the other end of the FIFO.

const fs = require('node:fs');
const { expectCall, sandbox } = require('../support/harness.js');
const { OLD, fifo } = require('../support/layouts.js');

const [call, point, hasReader, expected] = process.argv.slice(2).map((word) => JSON.parse(word));

sandbox({ f: OLD }, (ctx) => {
  const act = (event) => {
    if (event.point !== point) return;
    fs.rmSync(ctx.at('f'));
    fifo()(ctx.at('f'));
    if (hasReader) ctx.open(ctx.at('f'), fs.constants.O_RDONLY | fs.constants.O_NONBLOCK);
  };
  expectCall(expected, ctx, call, act);
});
