'use strict';

// Preloaded in the threads of tarvek/promises. Prints each call of node:fs that changes or flushes names.
// In place of the call with the number STOP_AT, kills the process, or lets the call fail with the code in
// FAIL_WITH. With DENY, every path below /proc fails with that code.

const fs = require('node:fs');

const { STOP_AT, FAIL_WITH, DENY } = process.env;
let count = 0;

function fail(code) {
  throw Object.assign(new Error('a test'), { code });
}

function before(name, run) {
  const original = fs[name];
  fs[name] = (...args) => {
    run(args[0]);
    return original(...args);
  };
}

for (const name of STOP_AT ? ['linkSync', 'unlinkSync', 'fsyncSync'] : []) {
  before(name, (at) => {
    ++count;
    if (count === Number(STOP_AT)) {
      if (FAIL_WITH) fail(FAIL_WITH);
      process.kill(process.pid, 'SIGKILL');
    }
    const where = fs.realpathSync.native(typeof at === 'number' ? `/proc/self/fd/${at}` : at);
    fs.writeSync(1, `${name} ${where}\n`);
  });
}
for (const name of DENY ? ['existsSync', 'openSync', 'lstatSync', 'statSync'] : []) {
  before(name, (at) => {
    if (String(at).startsWith('/proc')) fail(DENY);
  });
}
