'use strict';

// Timing. All subjects of a workload run in this process and take turns; the order rotates and
// reverses. Times are compared within a round only: a slow moment of the machine slows all of them.

const { performance } = require('node:perf_hooks');
const v8 = require('node:v8');
const vm = require('node:vm');

v8.setFlagsFromString('--expose-gc');
const collect = vm.runInNewContext('gc');

// Without this, one subject would pay for collecting another's garbage. A thread of the engine frees
// the Buffers; the second collection waits for it.
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

// The median and its 95 % confidence interval. The interval assumes no distribution: each value is
// below the true median with a chance of one half, so the number of those below is binomial.
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

// How often a runner must repeat its calls to take this many milliseconds, three times in a row.
function repetitions({ once, run }, clock, milliseconds) {
  if (once) return 1;
  const isEnough = (times) => timeOf(clock, () => run(times)) >= milliseconds * 1000;
  let times = 1;
  while (![1, 2, 3].every(() => isEnough(times))) times *= 2;
  return times;
}

// Returns each runner's microseconds for a call, and the ratio of the first runner's time to it.
// Takes about `seconds` by the medium's clock, and at least the rounds that an interval needs.
//   milliseconds    how long a turn of the first runner takes; the others repeat as often
//   warmUp          rounds that do not count, while the engine still compiles
//   collectBefore   collects garbage before each turn; not for short turns, which leave little and
//                   which the collection would disturb
function measure(runners, medium, { seconds, milliseconds, warmUp, collectBefore }) {
  const clock = clocks[medium];
  const times = runners.map(() => []);
  for (const { prepare } of runners) prepare();
  const repeat = repetitions(runners[0], clock, milliseconds);
  let end = 0;
  for (let round = 0; round < warmUp + LEAST_ROUNDS || clock() < end; ++round) {
    if (round === warmUp) end = clock() + seconds * 1e6;
    const order = runners.map((_, turn) => (round + turn) % runners.length);
    for (const index of round % 2 === 0 ? order : order.reverse()) {
      const { prepare, once, run, units } = runners[index];
      prepare();
      if (collectBefore) collectGarbage();
      if (!once) run(Math.ceil(repeat / 8));
      const time = timeOf(clock, () => run(repeat));
      if (round >= warmUp) times[index].push(time / (repeat * units));
    }
  }
  return runners.map(({ name }, index) => ({
    name,
    microseconds: median(times[index]),
    ratio: median(times[0].map((time, round) => time / times[index][round])),
  }));
}

module.exports = { collectGarbage, measure, median };
