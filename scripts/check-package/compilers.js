'use strict';

// Compiles `import *` to CommonJS and runs it: the compilers' helpers copy the enumerable properties.

const fs = require('node:fs');
const path = require('node:path');
const { tool, run, step } = require('./support.js');

const COMPILERS = {
  'oldest TypeScript': (source) => {
    const { ModuleKind, ScriptTarget, transpileModule } = require(tool('@oldest/typescript'));
    const module = ModuleKind.CommonJS;
    const compilerOptions = { module, target: ScriptTarget.ES2020, esModuleInterop: true };
    return transpileModule(source, { compilerOptions }).outputText;
  },
  Babel: (source) => {
    const plugins = [tool('@babel/plugin-transform-modules-commonjs')];
    return require(tool('@babel/core')).transformSync(source, { plugins, configFile: false }).code;
  },
};

async function runCompiled(folder) {
  const source = fs.readFileSync(path.join(folder, 'namespace.ts'), 'utf8');
  for (const [name, compile] of Object.entries(COMPILERS)) {
    await step(`import * compiled to CommonJS, ${name}`, () => {
      fs.writeFileSync(path.join(folder, 'namespace.cjs'), compile(source));
      run(process.execPath, ['namespace.cjs'], { cwd: folder });
    });
  }
}

module.exports = { runCompiled };
