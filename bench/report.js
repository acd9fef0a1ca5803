'use strict';

// Targets and results as tables. A ratio is the module's time divided by a subject's: below 1 the
// module is faster.

const { PER_FILE } = require('./workloads.js');

const inMemory = ({ medium }) => medium === 'memory';
const small = (row) => row.kind === 'small' && inMemory(row);
const oneLevel = (row) => small(row) && row.level === 1;
const sixLevels = (row) => small(row) && row.level === 6;
const named = (pattern) => (row) => pattern.test(row.name);

// Title, subject, highest ratio, and the workloads it holds for; the worst of them counts.
const TARGETS = [
  ['small data, six levels', 'floor', 1.08, sixLevels],
  ['small data, one level', 'floor', 1.25, (row) => oneLevel(row) && row.operation !== 'read'],
  ['small read, one level', 'floor', 1.4, (row) => oneLevel(row) && row.operation === 'read'],
  ['change on a disk', 'floor', 1.03, ({ medium }) => medium === 'disk'],
  ['capture of 1,000 x 1 KiB', 'floor', 1.6, named(/^capture of 1,000 files of 1 KiB/)],
  ['capture of 200,000 x 1 KiB', 'floor', 1.85, named(/^capture of 200,000/)],
  ['snapshot of 50,000 x 1 KiB', 'floor', 1.75, named(/^snapshot of 50,000/)],
  ['capture of 200,000, for each file', PER_FILE, 1.25, named(/^capture of 200,000/)],
  ['read of 4 KiB', 'node:fs', 0.95, named(/^read of 4 KiB/)],
  ['read of 64 KiB', 'node:fs', 0.95, named(/^read of 64 KiB/)],
  ['read of 1 MiB', 'node:fs', 1, named(/^read of 1 MiB/)],
  ['read of 8 MiB', 'node:fs', 1.03, named(/^read of 8 MiB/)],
  ['read of 64 MiB', 'node:fs', 0.65, named(/^read of 64 MiB/)],
  ['capture of 1,000 x 64 KiB', 'node:fs', 0.97, named(/^capture of 1,000 files of 64 KiB/)],
  ['snapshot of 1,000 x 64 KiB', 'node:fs', 0.97, named(/^snapshot of 1,000 files of 64 KiB/)],
  ['capture of 200 x 1 MiB', 'node:fs', 1, named(/^capture of 200 files/)],
  ['snapshot of 200 x 1 MiB', 'node:fs', 1, named(/^snapshot of 200 files/)],
  ['list of 1,000 and 20,000 names', 'node:fs', 1.15, named(/^list of/)],
  ['all but large data', 'JavaScript only', 0.8, (row) => row.kind !== 'bulk' && inMemory(row)],
  ['small data, six levels', 'JavaScript only', 0.35, sixLevels],
  ['peak memory of read, 256 MiB', 'its payload', 1.05, named(/^peak memory of read/)],
  ['peak memory of capture, 1 GiB', 'its payload', 1.05, named(/^peak memory of capture/)],
  ['peak memory of snapshot, 1 GiB', 'its payload', 1.05, named(/^peak memory of snapshot/)],
  ['200 writes of 1 MiB at once', 'fs/promises', 1.05, named(/^200 writes/)],
  ['1,000 writes of 4 KiB at once', 'fs/promises', 1.05, named(/^1,000 writes/)],
  ['2,000 reads of 1 KiB', 'fs/promises', 0.6, named(/^2,000 reads/)],
  ['64 reads of 8 MiB at once', 'fs/promises', 1.3, named(/^64 reads/)],
  ['capture of 10,000, longest block', 'synchronous call', 0.1, named(/^capture .* block/)],
  ['write of 32 MiB, longest block', 'synchronous call', 0.2, named(/^write .* block/)],
  ['memory of a thread', '10 MiB', 1, named(/^memory of a thread/)],
];

const range = ({ median, low, high }) =>
  `${median.toFixed(2)} (${low.toFixed(2)} to ${high.toFixed(2)})`;

function table(headings, rows) {
  const all = [headings, headings.map(() => '---'), ...rows];
  const widths = headings.map((_, column) => Math.max(...all.map((row) => row[column].length)));
  const line = (row) => `| ${row.map((text, column) => text.padEnd(widths[column])).join(' | ')} |`;
  return all.map(line).join('\n');
}

function judge([title, subject, atMost, select], results) {
  const ratios = results
    .filter((row) => select(row) && row.ratios[subject])
    .map((row) => ({ workload: row.name, ratio: row.ratios[subject] }))
    .sort((a, b) => b.ratio.median - a.ratio.median);
  if (ratios.length === 0) return { title, subject, atMost };
  return {
    title,
    subject,
    atMost,
    ...ratios[0],
    met: Number(ratios[0].ratio.median.toFixed(2)) <= atMost,
  };
}

const judgeAll = (results) => TARGETS.map((target) => judge(target, results));

function targetTable(results) {
  const rows = judgeAll(results).map(({ title, subject, atMost, ratio, workload, met }) => [
    title,
    subject,
    atMost.toFixed(2),
    ratio ? range(ratio) : 'not measured',
    ratio ? (met ? 'yes' : 'no') : '',
    workload ?? '',
  ]);
  return table(['target', 'compared with', 'at most', 'measured', 'met', 'worst in'], rows);
}

function resultTable(results) {
  const names = [...new Set(results.flatMap(({ ratios }) => Object.keys(ratios)))];
  const rows = results.map(({ name, medium, microseconds, ratios }) => [
    `${name}${medium === 'disk' ? ', on a disk' : ''}`,
    microseconds ? microseconds.median.toPrecision(3) : '',
    ...names.map((subject) => (ratios[subject] ? range(ratios[subject]) : '')),
  ]);
  return table(['work', 'µs', ...names.map((name) => `to ${name}`)], rows);
}

module.exports = { judgeAll, targetTable, resultTable };
