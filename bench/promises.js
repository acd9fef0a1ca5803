'use strict';

// node promises.js '{"name", "base", "quick"}'
//
// Measures one workload of tarvek/promises below the directory `base`, and prints as JSON its ratio to
// what it is compared with. The two take turns in one process, and a ratio is taken within each round.

const fs = require('node:fs');
const path = require('node:path');
const synchronous = require('..');
const tarvek = require('../promises/index.js');
const { collectGarbage, median } = require('./measure.js');

const MIB = 2 ** 20;
const WARM_UP = 1;
const THREADS = 16;

const { name, base, quick } = JSON.parse(process.argv[2]);
const leaf = path.join(base, 'leaf');

const atOnce = (count, call) => Promise.all(Array.from({ length: count }, (_, n) => call(`${n}`)));
async function oneByOne(count, call) {
  for (let n = 0; n < count; ++n) await call(`${n}`);
}

// What `write` does, without the guarantees: both the content and the name are flushed.
async function writeByHand(to, body) {
  const file = await fs.promises.open(`${to}.temporary`, 'wx', 0o600);
  await file.writeFile(body);
  await file.sync();
  await file.close();
  await fs.promises.rename(`${to}.temporary`, to);
  const directory = await fs.promises.open(path.dirname(to));
  await directory.sync();
  await directory.close();
}

async function timeOf(work) {
  const start = performance.now();
  await work();
  return performance.now() - start;
}

// The longest time for which a timer of 1 ms had to wait.
async function longestBlock(work) {
  let last = performance.now();
  let longest = 0;
  const tick = () => {
    const now = performance.now();
    longest = Math.max(longest, now - last);
    last = now;
  };
  const timer = setInterval(tick, 1);
  await work();
  tick();
  clearInterval(timer);
  return longest;
}

const writes = (count, size) => (root) => {
  const body = Buffer.alloc(size, 'b');
  return [
    () => atOnce(count, (file) => tarvek.write(root, ['leaf', file], body)),
    () => atOnce(count, (file) => writeByHand(path.join(leaf, file), body)),
  ];
};
const reads = (run, count, isSame) => (root) => [
  () => run(count, (file) => tarvek.read(root, ['leaf', isSame ? '0' : file])),
  () => run(count, (file) => fs.promises.readFile(path.join(leaf, isSame ? '0' : file))),
];

// What is measured, how, and what it is compared with.
const WORK = {
  '200 writes of 1 MiB at once': [timeOf, writes(200, MIB)],
  '1,000 writes of 4 KiB at once': [timeOf, writes(1000, 4096)],
  '2,000 reads of 1 KiB in turn': [timeOf, reads(oneByOne, 2000, true)],
  '2,000 reads of 1 KiB at once': [timeOf, reads(atOnce, 2000, true)],
  '64 reads of 8 MiB at once': [timeOf, reads(atOnce, 64, false)],
  'capture of 10,000 files, longest block': [
    longestBlock,
    (root, handle) => [
      () => tarvek.capture(root, [['leaf']]),
      () => synchronous.capture(handle, [['leaf']]),
    ],
  ],
  'write of 32 MiB, longest block': [
    longestBlock,
    (root, handle) => {
      const body = Buffer.alloc(32 * MIB, 'b');
      return [
        () => tarvek.write(root, ['leaf', 'f'], body),
        () => synchronous.write(handle, ['leaf', 'f'], body),
      ];
    },
  ],
};

async function compare() {
  const [measure, make] = WORK[name];
  const handle = synchronous.openRoot(base);
  const root = await tarvek.openRoot(base);
  const both = make(root, handle);
  const ratios = [];
  for (let round = 0; round < WARM_UP + (quick ? 6 : 15); ++round) {
    const times = [];
    for (const which of round % 2 === 0 ? [0, 1] : [1, 0]) {
      collectGarbage();
      times[which] = await measure(both[which]);
    }
    if (round >= WARM_UP) ratios.push(times[0] / times[1]);
  }
  await tarvek.close(root);
  synchronous.close(handle);
  return median(ratios);
}

// Relative to 10 MiB. The first round starts the pool in a process that has never had one.
async function memoryOfThread() {
  process.env.UV_THREADPOOL_SIZE = THREADS;
  const before = process.memoryUsage.rss();
  const root = await tarvek.openRoot(base);
  const taken = process.memoryUsage.rss() - before;
  await tarvek.close(root);
  return taken / THREADS / (10 * MIB);
}

async function main() {
  const ratio = name === 'memory of a thread' ? median([await memoryOfThread()]) : await compare();
  console.log(JSON.stringify(ratio));
}

main();
