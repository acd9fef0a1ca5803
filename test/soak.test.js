'use strict';

// After very many calls, half of them refused, and very many handles that nobody closed, the process
// holds the same descriptors and no more memory than before.

const fs = require('node:fs');
if (fs.existsSync('/dev/shm')) process.env.TMPDIR ??= '/dev/shm';

const assert = require('node:assert/strict');
const test = require('node:test');
const { setImmediate: turn } = require('node:timers/promises');
const { isExternal } = require('node:util').types;
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const harness = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

const { OLD, build, descriptors, lines, place, prepare, symlink, thrownBy } = harness;
const CALLS = process.env.TARVEK_TEST_FULL === '1' ? 1_000_000 : 100_000;
const CALLS_PER_HANDLE = 10;
const SLACK = 4 * 1024 * 1024;
const sanitized = /asan/.test(process.env.LD_PRELOAD ?? '');
setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// Together the calls leave everything as they find it. Through the link all of them are refused.
const LAYOUT = { d: { f: OLD, c: OLD, s: { g: 'one' }, l: symlink('../d/s') }, link: symlink('d') };
const ROUND = lines(`
  exists d/f                 read d/f                  list d/s
  capture d/f d/s            snapshot d/s              openRoot @d/s
  openRelative d/s           write d/f NEW             write d/f OLD stage
  ensureDirectory d/e/x      create d/e/n NEW          append d/e/n 5 0 OLD
  remove d/e                 create d/n OLD            removeIfEquals d/n OLD
  move d/c d/m               move d/m d/c              ensureRelativeSymlink d/l d/s
  publishVerified fd:d/c d/c d/p OLD                   move d/p d/c`).flat();

// Finalizers run when the event loop turns after a collection.
async function work(handle, round, calls) {
  for (let made = 0; made < calls; ++made) {
    if (made % 2000 === 0) await turn(collect());
    if (made % 1000 === 0) tarvek.setTestHook(made % 2000 === 0 ? () => {} : null);
    if (made % CALLS_PER_HANDLE === 0) tarvek.openRelative(handle, ['d']);
    const [operation, args, code] = round[made % round.length];
    const { thrown, result } = thrownBy(() => tarvek[operation](...args));
    if (isExternal(result)) tarvek.close(result);
    assert.equal(thrown?.code, code, operation);
  }
  await turn(collect());
  return process.memoryUsage().rss;
}

// Of the open descriptors; what they are open on is told differently once it has moved.
const numbers = () => descriptors().map((line) => line.split(' ')[0]);

test('a long run leaves nothing behind', async (t) => {
  build(place.root, LAYOUT);
  const ctx = { ...place, handle: tarvek.openRoot(place.root), open: fs.openSync };
  const round = ROUND.flatMap((words) => [
    [...prepare(ctx, words), undefined],
    [...prepare(ctx, words.replace(/\bd\//g, 'link/')), 'PATH_OUT_OF_ROOT'],
  ]);
  const warmth = round.length * 250;
  await work(ctx.handle, round, warmth);
  const before = numbers();
  const warm = await work(ctx.handle, round, warmth);
  const grown = (await work(ctx.handle, round, CALLS)) - warm;
  t.diagnostic(`${CALLS} calls, ${CALLS / CALLS_PER_HANDLE} handles dropped, ${grown} bytes more`);
  assert.deepEqual(numbers(), before);
  assert.ok(sanitized || grown < SLACK, `${grown} bytes more`);
});
