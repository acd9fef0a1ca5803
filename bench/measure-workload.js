'use strict';

// node measure-workload.js '{"name", "medium", "base", "quick", "against"}'
//
// Measures one workload below the directory `base` and prints the outcome as JSON. Needs a process of
// its own: what one workload leaves in the heap, in the C library's allocator and in the compiler's
// feedback changes the next one's times by up to a half.

const path = require('node:path');
const { measure } = require('./measure.js');
const { makeRunner, requireSameOutcome, subjects } = require('./runners.js');
const { workloads } = require('./workloads.js');

const { name, medium, base, quick, against } = JSON.parse(process.argv[2]);
const workload = workloads(quick).find((one) => one.name === name && one.medium === medium);
const names = ['tarvek', ...workload.subjects];
if (against) {
  subjects['other build'] = require(path.resolve(against));
  names.push('other build');
}

// Short turns, since a turn is then less likely to be interrupted, and there are more of them. Large
// data vary more, because malloc returns warm pages at one time and new ones at another.
const isShort = ['small', 'one file', 'names'].includes(workload.kind);
const effort = {
  ...(quick ? { seconds: 0.15, milliseconds: 2 } : { seconds: isShort ? 4 : 8, milliseconds: 4 }),
  warmUp: isShort ? 20 : 1,
  collectBefore: !isShort,
};

const runners = names.map((subject) => makeRunner(subject, workload, base));
requireSameOutcome(runners, workload);
const [{ microseconds }, ...others] = measure(runners, medium, effort);
for (const { close } of runners) close();
const ratios = Object.fromEntries(others.map(({ name: subject, ratio }) => [subject, ratio]));
console.log(JSON.stringify({ microseconds, ratios }));
