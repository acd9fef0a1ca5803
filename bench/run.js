'use strict';

// npm run bench [-- --quick] [--only PATTERN] [--against MODULE] [--chart]
//
// Compares the module's times with those of other ways, and its targets with the results. `--quick`
// is less exact, `--only` measures the workloads whose names match a regular expression, `--against`
// adds another build of the module as a subject. Writes build/bench/results.json and results.md.
// `--chart` draws docs/performance.svg from the results of a full run.
//
// A missed target is only reported: another program on the machine can cause it.

const { execFile } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs, promisify } = require('node:util');
const { drawChart } = require('./chart.js');
const { median } = require('./measure.js');
const { judgeAll, resultTable, targetTable } = require('./report.js');
const { buildDirectory, buildFloor, writeTree } = require('./runners.js');
const { workloads } = require('./workloads.js');

const TMPFS = 0x01021994;

const { quick, only, against, chart } = parseArgs({
  options: {
    quick: { type: 'boolean', default: false },
    only: { type: 'string', default: '' },
    against: { type: 'string' },
    chart: { type: 'boolean', default: false },
  },
}).values;

const stop = new AbortController();

async function runNode(script, ...args) {
  const command = [path.join(__dirname, script), ...args];
  const { signal } = stop;
  return JSON.parse((await promisify(execFile)(process.execPath, command, { signal })).stdout);
}

const isTmpfs = (at) => fs.existsSync(at) && fs.statfsSync(at).type === TMPFS;
const sizeOf = (content) =>
  typeof content !== 'object' || Buffer.isBuffer(content)
    ? 4096 + content.length
    : Object.values(content).reduce((sum, inner) => sum + sizeOf(inner), 4096);

function showProgress(text) {
  process.stderr.write(process.stderr.isTTY ? `\r\x1b[K${text}` : text && `${text}\n`);
}

// A directory that is removed when the process ends.
function temporary(parent) {
  const made = fs.mkdtempSync(path.join(fs.realpathSync(parent), 'tarvek-bench-'));
  process.on('exit', () => fs.rmSync(made, { recursive: true, force: true }));
  return made;
}

function places() {
  const memory = temporary(isTmpfs('/dev/shm') ? '/dev/shm' : os.tmpdir());
  return { memory, disk: temporary(isTmpfs(os.tmpdir()) ? buildDirectory : os.tmpdir()) };
}

function fits(place, layout) {
  const { bavail, bsize } = fs.statfsSync(place);
  const size = sizeOf(layout);
  return size < bavail * bsize && size < os.freemem() / 2;
}

async function peakMemory({ operation, payload, layout }, base) {
  writeTree(base, layout());
  const ratios = [];
  for (let left = quick ? 1 : 3; left > 0; --left) {
    ratios.push((await runNode('memory.js', operation, base)) / payload);
  }
  return { ratios: { 'its payload': median(ratios) } };
}

async function promises({ name, other, layout }, base) {
  writeTree(base, layout());
  return {
    ratios: { [other]: await runNode('promises.js', JSON.stringify({ name, base, quick })) },
  };
}

function run(workload, base) {
  if (workload.kind === 'promises') return promises(workload, base);
  if (workload.kind === 'memory') return peakMemory(workload, base);
  const { name, medium } = workload;
  return runNode('measure-workload.js', JSON.stringify({ name, medium, base, quick, against }));
}

async function runAll(chosen, place) {
  const results = [];
  const skipped = [];
  for (const [index, workload] of chosen.entries()) {
    const { name, operation, kind, level, medium } = workload;
    showProgress(
      `${index + 1} of ${chosen.length}: ${name}${medium === 'disk' ? ', on a disk' : ''}`,
    );
    if (!fits(place[medium], workload.layout())) {
      skipped.push(name);
      continue;
    }
    const base = path.join(place[medium], 'workload');
    const outcome = await run(workload, base);
    fs.rmSync(base, { recursive: true });
    results.push({ name, operation, kind, level, medium, ...outcome });
  }
  showProgress('');
  return { results, skipped };
}

function report({ results, skipped }, place) {
  const linux = os.release().split('-')[0];
  const machine = `${os.cpus()[0].model}, Linux ${linux}, Node.js ${process.versions.node}`;
  const memory = isTmpfs(place.memory) ? 'on a tmpfs' : 'on a disk, since there is no tmpfs';
  const disk = isTmpfs(place.disk) ? 'on a tmpfs, since there is no disk' : 'on a disk';
  const text = [
    targetTable(results),
    resultTable(results),
    `${machine}; CPU time ${memory}, wall time ${disk}`,
  ].join('\n\n');
  fs.writeFileSync(path.join(buildDirectory, 'results.md'), `${text}\n`);
  const all = { machine, targets: judgeAll(results), results, skipped };
  fs.writeFileSync(path.join(buildDirectory, 'results.json'), `${JSON.stringify(all, null, 2)}\n`);
  console.log(text);
  if (skipped.length > 0) console.log(`\nNot measured, too little room: ${skipped.join('; ')}`);
}

async function main() {
  buildFloor();
  const chosen = workloads(quick).filter(({ name }) => new RegExp(only).test(name));
  const place = places();
  const outcome = await runAll(chosen, place);
  report(outcome, place);
  if (chart) drawChart();
}

process.once('SIGINT', () => {
  stop.abort();
  // Removes the temporary directories too.
  process.exit(130);
});
if (chart && (quick || only)) {
  console.error('--chart needs a full run: without --quick and --only');
  process.exit(1);
}
main();
