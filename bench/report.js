'use strict';

// The targets, and results as tables for people: the module's time in relation to each subject's,
// below 1 where the module is faster.

const { PER_FILE } = require('./workloads.js');

const inMemory = ({ medium }) => medium === 'memory';
const small = (row) => row.kind === 'small' && inMemory(row);
const oneLevel = (row) => small(row) && row.level === 1;
const named = (pattern) => (row) => pattern.test(row.name);

// What is held against whom, the ratio at most, and the workloads of which the worst one counts.
const TARGETS = [
  ['small data, six levels', 'floor', 1.08, (row) => small(row) && row.level === 6],
  ['small data, one level', 'floor', 1.25, (row) => oneLevel(row) && row.operation !== 'read'],
  ['small read, one level', 'floor', 1.4, (row) => oneLevel(row) && row.operation === 'read'],
  ['change on a disk', 'floor', 1.03, ({ medium }) => medium === 'disk'],
  ['capture of 200,000 files', 'floor', 1.8, named(/capture of 200,000/)],
  ['capture, a file of 200,000', PER_FILE, 1.25, named(/capture of 200,000/)],
  ['snapshot of 50,000 files', 'floor', 1.75, named(/snapshot of 50,000/)],
  ['list of 1,000 and 20,000 names', 'node:fs', 1.15, named(/list of/)],
  ['read of 1 MiB', 'node:fs', 1.25, named(/read of 1 MiB/)],
  ['read of 64 MiB', 'node:fs', 1.6, named(/read of 64 MiB/)],
  ['200 files of 1 MiB', 'node:fs', 1.25, named(/of 200 files of 1 MiB/)],
  ['peak memory of capture, 1 GiB', 'its payload', 1.05, named(/memory of capture/)],
  ['peak memory of read, 256 MiB', 'its payload', 2, named(/memory of read/)],
  ['all but bulk reads', 'JavaScript only', 0.8, (row) => row.kind !== 'bulk' && inMemory(row)],
  ['the same, six levels', 'JavaScript only', 0.35, (row) => small(row) && row.level === 6],
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
  return table(['work', 'in relation to', 'at most', 'measured', 'met', 'worst in'], rows);
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
