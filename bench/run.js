'use strict';

// npm run bench [-- --quick] [--only PATTERN] [--against MODULE]
//
// Compares the module with what a user would weigh it against. `--quick` takes less than a minute,
// `--only` measures the workloads whose name fits a regular expression, `--against` adds another
// build of the module as a subject. Writes build/bench/results.json and build/bench/results.md.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { setImmediate: otherEvents } = require('node:timers/promises');
const { parseArgs } = require('node:util');
const { measure, median } = require('./measure.js');
const { judgeAll, resultTable, targetTable } = require('./report.js');
const { compare, home, lay, stand, subjects } = require('./stand.js');
const { MIB, tree, workloads } = require('./workloads.js');

const TMPFS = 0x01021994;

const { quick, only, against } = parseArgs({
  options: {
    quick: { type: 'boolean', default: false },
    only: { type: 'string', default: '' },
    against: { type: 'string' },
  },
}).values;

const isShort = (kind) => ['small', 'one file', 'names'].includes(kind);

// The smaller a turn, the likelier it is that nothing interrupts it; what takes much memory needs
// turns that use it more than once.
const effort = ({ kind }) => ({
  seconds: quick ? 0.15 : 4,
  milliseconds: (isShort(kind) ? 3 : 20) / (quick ? 2 : 1),
  collectBefore: !isShort(kind),
});

if (against) subjects['other build'] = require(path.resolve(against));

const isTmpfs = (at) => fs.existsSync(at) && fs.statfsSync(at).type === TMPFS;
const sizeOf = (content) =>
  typeof content !== 'object' || Buffer.isBuffer(content)
    ? 4096 + content.length
    : Object.values(content).reduce((sum, inner) => sum + sizeOf(inner), 4096);

function say(text) {
  process.stderr.write(process.stderr.isTTY ? `\r\x1b[K${text}` : text && `${text}\n`);
}

// A directory that goes when the process ends.
function temporary(parent) {
  const made = fs.mkdtempSync(path.join(fs.realpathSync(parent), 'tarvek-bench-'));
  process.on('exit', () => fs.rmSync(made, { recursive: true, force: true }));
  return made;
}

function places() {
  const memory = temporary(isTmpfs('/dev/shm') ? '/dev/shm' : os.tmpdir());
  return { memory, disk: temporary(isTmpfs(os.tmpdir()) ? home : os.tmpdir()) };
}

function fits(place, layout) {
  const { bavail, bsize } = fs.statfsSync(place);
  return sizeOf(layout) < bavail * bsize && sizeOf(layout) < os.freemem() / 2;
}

function runWorkload(workload, base) {
  const names = ['tarvek', ...workload.subjects, ...(against ? ['other build'] : [])];
  const stands = names.map((name) => stand(name, workload, base));
  compare(stands, workload);
  const [{ microseconds }, ...others] = measure(stands, workload.medium, effort(workload));
  for (const { close } of stands) close();
  fs.rmSync(base, { recursive: true });
  const ratios = Object.fromEntries(others.map(({ name, ratio }) => [name, ratio]));
  return { microseconds, ratios };
}

// In a process of its own, since a peak does not go down again.
function runMemory({ operation, payload, layout }, base) {
  lay(base, layout);
  const command = [path.join(__dirname, 'memory.js'), operation, base];
  const peaks = Array.from({ length: quick ? 1 : 3 }, () =>
    Number(execFileSync(process.execPath, command)),
  );
  fs.rmSync(base, { recursive: true });
  return { ratios: { 'its payload': median(peaks.map((peak) => peak / payload)) } };
}

const memoryWorkload = (operation, size, payload, content) => ({
  ...{ name: `peak memory of ${operation} of ${size}`, operation, medium: 'memory', payload },
  ...{ kind: 'memory', layout: { leaf: content } },
});

async function runAll(chosen, place) {
  const results = [];
  const skipped = [];
  for (const [index, workload] of chosen.entries()) {
    const { name, operation, kind, level, medium } = workload;
    say(`${index + 1} of ${chosen.length}: ${name}${medium === 'disk' ? ', on a disk' : ''}`);
    if (!fits(place[medium], workload.layout)) {
      skipped.push(name);
      continue;
    }
    const run = kind === 'memory' ? runMemory : runWorkload;
    const outcome = run(workload, path.join(place[medium], 'workload'));
    results.push({ name, operation, kind, level, medium, ...outcome });
    await otherEvents();
  }
  say('');
  return { results, skipped };
}

const chosen = [
  ...workloads(quick),
  memoryWorkload('read', '256 MiB', 256 * MIB.length, Buffer.alloc(256 * MIB.length, 'r')),
  memoryWorkload('capture', '1 GiB', 1024 * MIB.length, tree(1024, MIB)),
].filter(({ name }) => new RegExp(only).test(name));
function report({ results, skipped }, place) {
  const machine = [
    `${os.cpus()[0].model}, Linux ${os.release()}, Node.js ${process.versions.node};`,
    `CPU time on ${isTmpfs(place.memory) ? 'a tmpfs' : 'a disk, for want of a tmpfs'},`,
    `wall time ${isTmpfs(place.disk) ? 'on a tmpfs, for want of a disk' : 'on a disk'}`,
  ].join(' ');
  const text = [targetTable(results), resultTable(results), machine].join('\n\n');
  fs.writeFileSync(path.join(home, 'results.md'), `${text}\n`);
  const json = { machine, targets: judgeAll(results), results, skipped };
  fs.writeFileSync(path.join(home, 'results.json'), `${JSON.stringify(json, null, 2)}\n`);
  console.log(text);
  if (skipped.length > 0) console.log(`\nNot measured, for want of room: ${skipped.join('; ')}`);
}

// Between two workloads, so that what is on disk goes too; a second one ends it at once.
process.once('SIGINT', () => process.exit(130));
const place = places();
runAll(chosen, place).then((outcome) => report(outcome, place));
