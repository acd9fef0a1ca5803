'use strict';

// Bundles a program, or traces its files, and runs the result where tarvek is not installed. Also checks
// the error of a bundle without the binary.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { bun, tool, run, runRefused, step } = require('./support.js');

const SOURCE = 'namespace.ts';
const PROMISES = 'promises.mjs';

const esbuild = (options) =>
  require(tool('esbuild')).build({ bundle: true, platform: 'node', ...options });

// What a Rollup user writes or installs for native modules: it copies the binary beside the bundle, and
// loads it when the program asks for it, because the one for another processor would not load.
const copyBinaries = {
  name: 'copy-binaries',
  load(id) {
    if (!id.endsWith('.node')) return null;
    const fileName = `${path.basename(path.dirname(id))}.node`;
    this.emitFile({ type: 'asset', fileName, source: fs.readFileSync(id) });
    return `const { createRequire } = require('node:module');
      module.exports = createRequire(import.meta.url)('./${fileName}');`;
  },
};

async function rollup(folder, source, file, format) {
  const { nodeResolve } = require(tool('@rollup/plugin-node-resolve'));
  const commonjs = require(tool('@rollup/plugin-commonjs'));
  const bundle = await require(tool('@rollup/wasm-node')).rollup({
    input: path.join(folder, source),
    plugins: [nodeResolve(), commonjs({ extensions: ['.js', '.node'] }), copyBinaries],
  });
  await bundle.write({ file, format });
}

// Each bundles a program of `folder` into the directory `out` and returns its name there.
const BUNDLERS = {
  esbuild: async (folder, out, source) => {
    const options = { outfile: path.join(out, 'app.cjs'), loader: { '.node': 'copy' } };
    await esbuild({ entryPoints: [path.join(folder, source)], ...options });
    return 'app.cjs';
  },
  'Rollup, CommonJS': async (folder, out, source) => {
    await rollup(folder, source, path.join(out, 'app.cjs'), 'cjs');
    return 'app.cjs';
  },
  'Rollup, ES module': async (folder, out, source) => {
    await rollup(folder, source, path.join(out, 'app.mjs'), 'es');
    return 'app.mjs';
  },
  Bun: (folder, out, source) => {
    const output = ['--outdir', out, '--entry-naming', 'app.mjs'];
    run(bun, ['build', '--target=node', source, ...output], { cwd: folder });
    return 'app.mjs';
  },
  'file tracer': async (folder, out, source) => {
    const { nodeFileTrace } = require(tool('@vercel/nft'));
    const traced = source === SOURCE ? 'commonjs.cjs' : source;
    const { fileList } = await nodeFileTrace([path.join(folder, traced)], { base: folder });
    for (const name of fileList) fs.cpSync(path.join(folder, name), path.join(out, name));
    assert.ok(!fileList.has('node_modules/tarvek/CMakeLists.txt'), 'no more than is needed');
    return traced;
  },
};

// Without the binary, the directory of the bundle contains nothing to compile.
async function refuseWithoutBinary(folder, out) {
  const outfile = path.join(out, 'app.cjs');
  const entryPoints = [path.join(folder, SOURCE)];
  const options = { cwd: folder };
  const refused = () => {
    const message = runRefused(process.execPath, [outfile], options);
    assert.match(message, /to do: {2}keep tarvek out of the bundle .*copy its folder prebuilds/);
    assert.doesNotMatch(message, /cmake/);
  };
  await esbuild({ entryPoints, outfile, external: ['*.node'] });
  refused();
  fs.cpSync(path.join(folder, 'node_modules/tarvek/prebuilds'), path.join(out, 'prebuilds'), {
    recursive: true,
  });
  run(process.execPath, [outfile], options);
  // Here the bundle holds the binary's path in its place.
  await esbuild({ entryPoints, outfile, loader: { '.node': 'file' } });
  refused();
}

async function keepExternal(folder) {
  const outfile = path.join(folder, 'external.cjs');
  await esbuild({ entryPoints: [path.join(folder, PROMISES)], outfile, external: ['tarvek'] });
  assert.equal(run(process.execPath, [outfile], { cwd: folder }), 'works\n');
}

async function runBundled(folder) {
  // Beside the directory, so that nothing is found in its node_modules.
  const out = `${folder}-bundle`;
  const clean = () => fs.rmSync(out, { recursive: true, force: true });
  try {
    for (const [name, bundle] of Object.entries(BUNDLERS)) {
      fs.mkdirSync(out);
      await step(`bundled, ${name}`, async () => {
        const file = await bundle(folder, out, SOURCE);
        run(process.execPath, [path.join(out, file)], { cwd: folder });
        const promises = await bundle(folder, out, PROMISES);
        const printed = run(process.execPath, [path.join(out, promises)], { cwd: folder });
        assert.match(printed, name === 'file tracer' ? /^works$/m : /keep tarvek external/);
      });
      clean();
    }
    await step('promises, with tarvek external', () => keepExternal(folder));
    fs.mkdirSync(out);
    await step('bundled without the binary', () => refuseWithoutBinary(folder, out));
  } finally {
    clean();
  }
}

module.exports = { runBundled };
