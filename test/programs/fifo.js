'use strict';

// node fifo.js CALL POINT WITH_READER WITHOUT_READER: makes a call on the file f. At the hook point, a
// FIFO takes the place of the file. The call must end in the first outcome if the FIFO is open for
// reading, otherwise in the second. If the call waits instead, this process never ends.

const fs = require('node:fs');
const { expectCall, sandbox } = require('../support/harness.js');
const { OLD, build, fifo } = require('../support/layouts.js');

const words = process.argv.slice(2).map((word) => JSON.parse(word));
const [call, point, withReader, withoutReader] = words;
const { O_RDONLY, O_NONBLOCK } = fs.constants;

function expectWith(hasReader, expected) {
  sandbox({ f: OLD }, (ctx) => {
    const act = (event) => {
      if (event.point !== point) return;
      fs.rmSync(ctx.at('f'));
      build(ctx.at('f'), fifo());
      if (hasReader) ctx.open(ctx.at('f'), O_RDONLY | O_NONBLOCK);
    };
    expectCall(expected, ctx, call, act);
  });
}
expectWith(true, withReader);
expectWith(false, withoutReader);
