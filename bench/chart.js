'use strict';

// node bench/chart.js
//
// Draws build/bench/results.json as docs/performance.svg: the module's time for the main workloads,
// divided by that of node:fs.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const buildDirectory = path.join(__dirname, '..', 'build', 'bench');
const chartFile = path.join(__dirname, '..', 'docs', 'performance.svg');

// Title of a row, name of the workload. An empty row separates groups.
const ROWS = [
  ['exists', 'exists, one level'],
  ['read, 100 bytes', 'read, one level'],
  ['list, 10 names', 'list, one level'],
  ['write, 100 bytes', 'write, one level'],
  ['append, 100 bytes', 'append, one level'],
  ['move', 'move, one level'],
  ['remove', 'remove, one level'],
  [],
  ['exists, 5 directories deep', 'exists, six levels'],
  ['read, 5 directories deep', 'read, six levels'],
  ['write, 5 directories deep', 'write, six levels'],
  [],
  ['read, 4 KiB', 'read of 4 KiB'],
  ['read, 64 KiB', 'read of 64 KiB'],
  ['read, 1 MiB', 'read of 1 MiB'],
  ['read, 8 MiB', 'read of 8 MiB'],
  ['read, 64 MiB', 'read of 64 MiB'],
  ['list, 1,000 names', 'list of 1,000 names'],
  [],
  ['capture, 1,000 × 1 KiB', 'capture of 1,000 files of 1 KiB'],
  ['capture, 200,000 × 1 KiB', 'capture of 200,000 files of 1 KiB'],
  ['capture, 1,000 × 64 KiB', 'capture of 1,000 files of 64 KiB'],
  ['capture, 200 × 1 MiB', 'capture of 200 files of 1 MiB'],
  ['snapshot, 1,000 × 1 KiB', 'snapshot of 1,000 files of 1 KiB'],
  ['snapshot, 200,000 × 1 KiB', 'snapshot of 200,000 files of 1 KiB'],
  ['snapshot, 1,000 × 64 KiB', 'snapshot of 1,000 files of 64 KiB'],
  ['snapshot, 200 × 1 MiB', 'snapshot of 200 files of 1 MiB'],
];

const TITLE = "tarvek's CPU time divided by that of plain node:fs";
const COLORS = { faster: '#1a7f5a', slower: '#b3541e', text: '#1f2328', faint: '#57606a' };

// The library has a lock file of its own. It is installed in build/, when a chart is first drawn.
function loadLibrary() {
  const home = path.join(buildDirectory, 'chart');
  const wanted = path.join(__dirname, 'chart', 'package-lock.json');
  const installed = path.join(home, 'installed.json');
  const isCurrent = () => fs.readFileSync(installed).equals(fs.readFileSync(wanted));
  if (!fs.existsSync(installed) || !isCurrent()) {
    fs.cpSync(path.join(__dirname, 'chart'), home, { recursive: true });
    const options = ['--ignore-scripts', '--no-audit', '--no-fund', '--loglevel=error'];
    execFileSync('npm', ['ci', ...options], { cwd: home, stdio: 'inherit' });
    fs.copyFileSync(wanted, installed);
  }
  return require(path.join(home, 'node_modules', 'echarts'));
}

function bars(results) {
  return ROWS.map(([title = '', workload]) => {
    const row = results.find(({ name, medium }) => name === workload && medium === 'memory');
    return { title, ratio: row?.ratios['node:fs']?.median };
  }).filter(({ title, ratio }) => title === '' || ratio !== undefined);
}

// A bar from 1 to the ratio. The library's own bars start at the end of a logarithmic axis.
function drawBar(_, api) {
  const ratio = api.value(0);
  const [end, middle] = api.coord([ratio, api.value(1)]);
  const [one] = api.coord([1, api.value(1)]);
  const height = api.size([0, 1])[1] * 0.68;
  const fill = ratio > 1 ? COLORS.slower : COLORS.faster;
  const shape = {
    x: Math.min(one, end),
    y: middle - height / 2,
    width: Math.max(Math.abs(end - one), 1),
    height,
  };
  const label = {
    text: ratio.toFixed(2),
    fill: COLORS.text,
    fontSize: 12,
    x: ratio > 1 ? end + 6 : end - 6,
    y: middle,
    align: ratio > 1 ? 'left' : 'right',
    verticalAlign: 'middle',
  };
  return {
    type: 'group',
    children: [
      { type: 'rect', shape, style: { fill } },
      { type: 'text', style: label },
    ],
  };
}

function options(rows, machine) {
  const axisText = { color: COLORS.text, fontSize: 12 };
  return {
    animation: false,
    // A background of its own keeps the text readable on a dark page too.
    backgroundColor: '#ffffff',
    title: {
      text: TITLE,
      left: 16,
      top: 14,
      subtext: `1 is the same time, 0.5 half of it, 2 twice as much. Medians, no disk involved.\n${machine}`,
      textStyle: { color: COLORS.text, fontSize: 16 },
      subtextStyle: { color: COLORS.faint, fontSize: 12 },
    },
    grid: { left: 200, right: 48, top: 92, bottom: 56 },
    xAxis: {
      type: 'log',
      logBase: 2,
      min: 0.125,
      max: 16,
      name: 'faster than node:fs  ←  1  →  slower than node:fs   (logarithmic scale)',
      nameLocation: 'middle',
      nameGap: 32,
      nameTextStyle: axisText,
      axisLabel: { ...axisText, formatter: (value) => `${value} ×` },
      splitLine: { lineStyle: { color: '#d8dee4' } },
    },
    yAxis: {
      type: 'category',
      inverse: true,
      data: rows.map(({ title }) => title),
      axisLine: { show: false },
      axisTick: { show: false },
      axisLabel: { ...axisText, interval: 0 },
    },
    series: {
      type: 'custom',
      renderItem: drawBar,
      encode: { x: 0, y: 1 },
      data: rows.flatMap(({ ratio }, index) => (ratio === undefined ? [] : [[ratio, index]])),
      markLine: {
        silent: true,
        symbol: 'none',
        label: { show: false },
        data: [{ xAxis: 1 }],
        lineStyle: { color: COLORS.text, type: 'solid', width: 1.5 },
      },
    },
  };
}

function drawChart() {
  const echarts = loadLibrary();
  const file = path.join(buildDirectory, 'results.json');
  const { results, machine } = JSON.parse(fs.readFileSync(file, 'utf8'));
  const rows = bars(results);
  const size = { width: 860, height: 148 + 22 * rows.length };
  const chart = echarts.init(null, null, { renderer: 'svg', ssr: true, ...size });
  chart.setOption(options(rows, machine));
  const svg = chart.renderToSVGString();
  chart.dispose();
  const label = `role="img" aria-label="${TITLE}"`;
  fs.writeFileSync(chartFile, `${svg.replace('<svg ', `<svg ${label} `)}\n`);
}

if (require.main === module) drawChart();

module.exports = { drawChart };
