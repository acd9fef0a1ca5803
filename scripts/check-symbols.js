'use strict';

// Fails if the module would not load wherever Node itself loads, exports more than its two entries, or
// lacks a protection of the linker: node scripts/check-symbols.js [MODULE]

const { execFileSync } = require('node:child_process');
const path = require('node:path');
const { symbols } = require('node-api-headers');

// The newest versions that all official binaries of Node 20 and 18.17 for Linux on x64 and arm64 need
// themselves (`readelf --version-info`). So every system that runs such a binary has them.
const FLOOR = { GLIBC: '2.28', GLIBCXX: '3.4.21', CXXABI: '1.3.9', GCC: '3.4' };
const ENTRIES = ['napi_register_module_v1', 'node_api_module_get_api_version_v1'];
const LIBRARIES = /^(libc|libstdc\+\+|libm|libgcc_s|ld-linux-(x86-64|aarch64))\.so\.\d+$/;
// Optional hooks of the tool chain, which may stay unresolved.
const TOOLCHAIN = /^(_ITM_(de)?registerTMCloneTable|__gmon_start__)$/;
const NODE_API = new Set(Object.values(symbols.v9).flat());

function output(command, ...args) {
  const environment = { ...process.env, LC_ALL: 'C' };
  return execFileSync(command, args, { encoding: 'utf8', env: environment });
}

// All symbols of the dynamic table that are not local. A line is: name@version, a letter for the type,
// address, size.
function dynamicSymbols(file) {
  const options = ['--dynamic', '--extern-only', '--with-symbol-versions', '--format=posix'];
  const lines = output('nm', ...options, file)
    .trimEnd()
    .split('\n');
  return lines.map((line) => {
    const [symbol, type] = line.split(' ');
    const [name, version] = symbol.split(/@+/);
    return { name, version, imported: 'Uvw'.includes(type) };
  });
}

function isNewer(version, floor) {
  const [a, b] = [version, floor].map((text) => text.split('.').map(Number));
  const at = a.findIndex((number, index) => number !== b[index]);
  return at >= 0 && a[at] > (b[at] ?? -1);
}

function importFault({ name, version }) {
  if (version) {
    const [, library, number] = /^(\w+)_([\d.]+)$/.exec(version) ?? [];
    if (!FLOOR[library]) return `${name} needs ${version}, which is in no library that Node needs`;
    return isNewer(number, FLOOR[library]) && `${name} needs ${version}, newer than Node itself`;
  }
  if (NODE_API.has(name) || TOOLCHAIN.test(name)) return false;
  return `${name} is neither of Node-API 9 nor of the C and C++ libraries`;
}

function symbolFaults(file) {
  const table = dynamicSymbols(file);
  const exported = table.filter(({ imported }) => !imported).map(({ name }) => name);
  return [
    ...exported.filter((name) => !ENTRIES.includes(name)).map((name) => `${name} is exported`),
    ...ENTRIES.filter((name) => !exported.includes(name)).map((name) => `${name} is not exported`),
    ...table
      .filter(({ imported }) => imported)
      .map(importFault)
      .filter(Boolean),
  ];
}

function linkFaults(file) {
  const dynamic = output('readelf', '--wide', '--dynamic', file);
  const segments = output('readelf', '--wide', '--program-headers', file);
  const needed = [...dynamic.matchAll(/\(NEEDED\).*\[(.+)\]/g)].map(([, library]) => library);
  return [
    ...needed.filter((name) => !LIBRARIES.test(name)).map((name) => `${name} is linked`),
    /\((RPATH|RUNPATH)\)/.test(dynamic) && 'libraries are looked for in a folder of its own',
    !/\(FLAGS_1\).*\bNOW\b/.test(dynamic) && 'symbols are bound lazily',
    !/\(FLAGS_1\).*\bNODELETE\b/.test(dynamic) && 'the last worker that ends unloads the module',
    !/^ +GNU_RELRO /m.test(segments) && 'the relocation tables stay writable',
    !/^ +GNU_STACK .* RW +0x/m.test(segments) && 'the stack may be executable',
  ].filter(Boolean);
}

const file = process.argv[2] ?? path.join(__dirname, '../build/Release/tarvek.node');
const faults = [...symbolFaults(file), ...linkFaults(file)];
for (const fault of faults) console.error(fault);
console.log(`symbols: ${faults.length} faults`);
process.exitCode = faults.length === 0 ? 0 : 1;
