'use strict';

// Timing. All subjects of a workload run in this process, in turns whose order rotates and reverses;
// what counts is how they compare within a round, so that a slow moment of the machine slows all of
// them.

const { performance } = require('node:perf_hooks');
const v8 = require('node:v8');
const vm = require('node:vm');

v8.setFlagsFromString('--expose-gc');
const collect = vm.runInNewContext('gc');

// So that nobody's garbage is collected at another's expense. Buffers are freed by a thread of their
// own; the second collection waits for it.
function collectGarbage() {
  collect();
  collect();
}

const LEAST_ROUNDS = 6;

const clocks = {
  memory() {
    const { user, system } = process.cpuUsage();
    return user + system;
  },
  disk: () => performance.now() * 1000,
};

// The median, and the 95 % interval for it that the order of the values alone gives: how many of n
// values lie below the true median is a matter of n tosses of a coin.
function median(values) {
  const sorted = Float64Array.from(values).sort();
  const last = sorted.length - 1;
  let [outside, chance] = [0, 0.5 ** sorted.length];
  let tail = chance;
  while (tail <= 0.025) {
    ++outside;
    chance *= (sorted.length - outside + 1) / outside;
    tail += chance;
  }
  const end = Math.max(outside - 1, 0);
  const middle = (sorted[Math.floor(last / 2)] + sorted[Math.ceil(last / 2)]) / 2;
  return { median: middle, low: sorted[end], high: sorted[last - end] };
}

function timeOf(clock, act) {
  const start = clock();
  act();
  return clock() - start;
}

// How often a stand's calls have to be repeated to take so many milliseconds, three times in a row.
function repetitions({ once, run }, clock, milliseconds) {
  if (once) return 1;
  const isEnough = (times) => timeOf(clock, () => run(times)) >= milliseconds * 1000;
  let times = 1;
  while (![1, 2, 3].every(() => isEnough(times))) times *= 2;
  return times;
}

// Microseconds a call, and how the first stand's compare with each other's. Takes about so many
// seconds by its clock, but never less than the rounds that an interval needs. All stands repeat
// their calls equally often, so that a cold start weighs equally on them. Short turns leave little
// garbage, and collecting it before each would shake what follows far more than leaving it does.
function measure(stands, medium, { seconds, milliseconds, collectBefore }) {
  const clock = clocks[medium];
  const times = stands.map(() => []);
  for (const stand of stands) stand.prepare();
  const repeat = repetitions(stands[0], clock, milliseconds);
  const end = clock() + seconds * 1e6;
  for (let round = 0; round < LEAST_ROUNDS || clock() < end; ++round) {
    const order = stands.map((_, turn) => (round + turn) % stands.length);
    for (const index of round % 2 === 0 ? order : order.reverse()) {
      const { prepare, once, run, weight } = stands[index];
      prepare();
      if (collectBefore) collectGarbage();
      if (!once) run(Math.ceil(repeat / 8));
      const time = timeOf(clock, () => run(repeat));
      times[index].push(time / (repeat * weight));
    }
  }
  return stands.map(({ name }, index) => ({
    name,
    microseconds: median(times[index]),
    ratio: median(times[0].map((time, round) => time / times[index][round])),
  }));
}

module.exports = { measure, median };
