'use strict';

// The threads of tarvek/promises: the order of calls, roots that are open in several threads, and
// threads that end.

const assert = require('node:assert/strict');
const { AsyncLocalStorage } = require('node:async_hooks');
const { getEventListeners } = require('node:events');
const fs = require('node:fs');
const test = require('node:test');
const { setTimeout: sleep } = require('node:timers/promises');
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const threads = require('node:worker_threads');

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// The threads that run, each with the names of the calls that it has not answered. A test can act
// before a message is sent, and limit the heap of new threads.
const { Worker } = threads;
const running = new Set();
let beforeMessage = () => {};
let resourceLimits;
threads.Worker = class extends Worker {
  constructor(file, options) {
    super(file, { ...options, resourceLimits });
    this.unanswered = [];
    running.add(this);
    this.on('message', () => this.unanswered.shift());
    this.on('exit', () => running.delete(this));
  }

  postMessage(message, moved) {
    beforeMessage(message, this);
    this.unanswered.push(message.name);
    super.postMessage(message, moved);
  }
};
const promises = require('../promises/index.js');
const { inRoot, keeper, outcomeOf } = require('./support/async-root.js');
const { descriptors, expectOutcome, expectProgram, place, table } = require('./support/harness.js');

const { close, exists, openRoot, write } = promises;
const MIB = Buffer.alloc(2 ** 20, 'm');
const times = (count, make) => Promise.all(Array.from({ length: count }, (_, n) => make(n)));
const CALLS = process.env.TARVEK_TEST_FULL ? 100_000 : 10_000;
const isOver = (thread) => !running.has(thread);

async function until(holds, what) {
  const end = performance.now() + 20_000;
  while (!holds()) {
    assert.ok(performance.now() < end, what);
    await sleep(5);
  }
}

// In a pool of two threads.
const ON_A_ROOT = {
  'calls run at the same time, and none is sent to a thread that flushes': async (root) => {
    let busiest = 0;
    beforeMessage = (_, { unanswered }) => {
      assert.ok(['', 'exists'].includes(unanswered.join()), unanswered.join());
      const busy = Array.from(running).filter((thread) => thread.unanswered.length > 0);
      busiest = Math.max(busiest, busy.length);
    };
    await times(40, (n) => (n % 3 ? exists(root, [`${n}`]) : write(root, [`${n}`], MIB)));
    assert.equal(busiest, 2);
  },
  'close waits for the calls before it, on this root only': async (root) => {
    await promises.ensureDirectory(root, ['d']);
    const inner = await promises.openRelative(root, ['d']);
    const writes = times(9, (n) => write(root, [`${n}`], MIB));
    const closings = [close(root), close(root)];
    expectOutcome('closed', await outcomeOf(promises.read(root, ['8'])));
    await Promise.all(closings);
    assert.equal(fs.statSync(place.at('8')).size, MIB.length);
    await writes;
    assert.equal(await exists(inner, ['x']), false);
    await inner[Symbol.asyncDispose]();
    expectOutcome('closed', await outcomeOf(exists(inner, ['x'])));
  },
  'a root that threads find at different places is not opened': async () => {
    let opened = 0;
    beforeMessage = ({ opens }) => {
      if (!opens?.identity || ++opened > 1) return;
      fs.renameSync(place.root, `${place.base}/elsewhere`);
      fs.mkdirSync(place.root);
    };
    expectOutcome('outside', await outcomeOf(openRoot(place.root)));
    assert.equal(opened, 1, 'after the first thread');
  },
  'a thread that ends early fails its call, and no other': async (root) => {
    beforeMessage = ({ name }, thread) => name === 'write' && thread.terminate();
    const { thrown } = await outcomeOf(write(root, ['f'], MIB));
    assert.deepEqual({ ...thrown }, { code: 'FILESYSTEM_FAILURE' });
    assert.match(thrown.cause.message, /ended early; what the call changed is unknown/);
    assert.match(thrown.stack, /pool\.test\.js/);
    // New threads do not find the root at its path. Only the first one still has it.
    fs.renameSync(place.root, `${place.base}/elsewhere`);
    const [first, second] = running;
    second.terminate();
    await until(() => isOver(second), 'it runs');
    await times(50, () => exists(root, ['f']));
    assert.equal(running.size, 2, 'a new thread runs');
    first.terminate();
    await until(() => isOver(first), 'it runs');
    for (const when of ['while new threads try to', 'after they have tried to']) {
      const lost = await outcomeOf(exists(root, ['f']));
      assert.match(lost.thrown.cause.message, /no thread could open/, when);
    }
  },
  'a signal ends a call that waits, and no other': async (root) => {
    const controller = new AbortController();
    const { signal } = controller;
    const { signal: silent } = new AbortController();
    const calls = times(50, (n) => {
      return outcomeOf(exists(root, [`${n}`], { signal: n < 10 ? silent : signal }));
    });
    const listeners = () => [signal, silent].map((one) => getEventListeners(one, 'abort').length);
    assert.deepEqual(listeners(), [1, 1], 'one listener for all calls');
    const reason = new Error('the client went away');
    controller.abort(reason);
    const aborted = (await calls).map(({ thrown }) => thrown);
    assert.deepEqual(aborted, [...Array(10), ...Array(40).fill(reason)]);
    assert.deepEqual(listeners(), [0, 0], 'the signals are forgotten');
    assert.equal((await outcomeOf(close(root, { signal }))).thrown, reason);
  },
  'calls in the queue leave nothing behind, and are aborted in linear time': async (root) => {
    const round = async (count) => {
      const controller = new AbortController();
      const start = performance.now();
      const calls = times(count, (n) => {
        const options = n % 2 ? { signal: controller.signal } : undefined;
        return outcomeOf(exists(root, [`${n}`], options));
      });
      const making = performance.now() - start;
      controller.abort();
      const aborting = performance.now() - start - making;
      await calls;
      // The runtime keeps a promise until a later turn after its collection.
      for (let turn = 0; turn < 3; ++turn) {
        await sleep(10);
        collect();
      }
      return { isLinear: aborting < making, heap: process.memoryUsage().heapUsed };
    };
    // The first round also compiles. In the second one, the heap grows only by what the calls leave.
    const before = await round(CALLS);
    const after = await round(CALLS / 2);
    assert.ok(before.isLinear, 'aborting the calls took longer than making them');
    assert.ok(after.heap - before.heap < CALLS * 10, 'the calls left something behind');
  },
};
table('one root', Object.entries(ON_A_ROOT), (body) =>
  inRoot({}, async (root) => {
    try {
      await body(root);
    } finally {
      beforeMessage = () => {};
    }
  }),
);

// In a function of its own, so that nothing else remembers the root.
async function fillHeap() {
  resourceLimits = { maxOldGenerationSizeMb: 8 };
  const root = await openRoot(place.base);
  const { thrown } = await outcomeOf(exists(root, Array(20_000).fill('x'.repeat(1000))));
  assert.equal(thrown.cause.cause.code, 'ERR_WORKER_OUT_OF_MEMORY');
  assert.equal(await exists(root, ['none']), false);
}

// These start and end a pool of their own.
const POOLS = {
  'a thread with a full heap ends, and a forgotten root is closed': async () => {
    await fillHeap();
    await until(() => {
      collect();
      return running.size === 0;
    }, 'threads remain');
  },
  'threads do not keep the context of the call that started them': async () => {
    const storage = new AsyncLocalStorage();
    const root = await storage.run('the first call', openRoot, place.base);
    const seen = new Set();
    for (const thread of running) thread.once('message', () => seen.add(storage.getStore()));
    await exists(root, ['none']);
    await close(root);
    assert.deepEqual(Array.from(seen), [undefined]);
  },
  'a call that waits for the only thread goes on in the next one': async () => {
    process.env.UV_THREADPOOL_SIZE = '1';
    beforeMessage = ({ args }, thread) => args[0] === '/fatal' && thread.terminate();
    const paths = ['/none', '/fatal', '/none'];
    const outcomes = await Promise.all(paths.map((at) => outcomeOf(openRoot(at))));
    const codes = outcomes.map(({ thrown }) => thrown.code);
    assert.deepEqual(codes, ['NOT_FOUND', 'FILESYSTEM_FAILURE', 'NOT_FOUND']);
  },
  'UV_THREADPOOL_SIZE is the number of threads, up to 16': async () => {
    for (const [size, count] of Object.entries({ 3: 3, 99: 16, 0: 1, none: 1, unset: 4 })) {
      process.env.UV_THREADPOOL_SIZE = size;
      if (size === 'unset') delete process.env.UV_THREADPOOL_SIZE;
      const opening = outcomeOf(openRoot(place.base));
      assert.equal(running.size, count, size);
      for (const thread of running) thread.terminate();
      await opening;
      await until(() => running.size === 0, 'threads remain');
    }
  },
};
table('the pool', Object.entries(POOLS), async (body) => {
  await close(await keeper);
  await until(() => running.size === 0, 'threads remain');
  const before = descriptors().length;
  try {
    await body();
    await until(() => running.size === 0, 'threads remain');
    assert.ok(descriptors().length <= before, 'descriptors remain');
  } finally {
    beforeMessage = () => {};
    resourceLimits = undefined;
    process.env.UV_THREADPOOL_SIZE = '2';
  }
});

test('a program and its thread end when no call is pending, with a root open in both', () => {
  assert.equal(expectProgram('open-root.js'), 'open\nopen\n');
});
