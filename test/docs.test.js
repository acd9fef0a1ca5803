'use strict';

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { files } = require('../package.json');
const { enterSandbox, leaveSandbox } = require('./support/harness.js');

const PACKAGE = path.join(__dirname, '..');
process.chdir(PACKAGE);
const textOf = (file) => fs.readFileSync(file, 'utf8');
const packed = ['README.md', 'LICENSE', ...files];
const inDocs = fs.readdirSync('docs').map((name) => `docs/${name}`);
const pages = [...packed, ...inDocs].filter((name) => name.endsWith('.md'));

// Only a file in this package finds it by its name.
const scripts = path.resolve(fs.mkdtempSync('build/docs-'));
test.after(() => fs.rmSync(scripts, { recursive: true }));
const env = { ...process.env, NODE_TEST_CONTEXT: '', UV_THREADPOOL_SIZE: '1' };

// Runs a program in an empty directory. Returns what it prints.
function outputOf(code) {
  const file = path.join(scripts, code.startsWith('import') ? 'example.mjs' : 'example.cjs');
  fs.writeFileSync(file, code);
  const ctx = enterSandbox({});
  try {
    return execFileSync(process.execPath, [file], { cwd: ctx.root, env, encoding: 'utf8' });
  } finally {
    leaveSandbox(ctx);
  }
}

// The anchors of a page's headings.
function anchorsIn(page) {
  const headings = textOf(page)
    .match(/^#+ .*/gm)
    .map((line) => line.toLowerCase());
  return headings.map((line) => line.replace(/^#+ |[^\w -]/g, '').replaceAll(' ', '-'));
}

for (const page of pages) {
  test(`links lead to packed files and to headings: ${page}`, () => {
    for (const [, link] of textOf(page).matchAll(/\]\((?!https:)(.+?)\)/g)) {
      const [file, anchor] = link.split('#');
      const target = file ? path.join(path.dirname(page), file) : page;
      const isPacked = packed.some((name) => target.startsWith(name));
      assert.ok(isPacked, `${link} is not in the package`);
      assert.ok(fs.existsSync(target), `${link} does not exist`);
      assert.ok(!anchor || anchorsIn(target).includes(anchor), `${link} has no heading`);
    }
  });

  const examples = textOf(page).matchAll(/^```js\n(.*?)^```\n(?:\n```text\n(.*?)^```\n)?/gms);
  for (const { index, 1: code, 2: printed } of examples) {
    const line = textOf(page).slice(0, index).split('\n').length;
    test(`an example runs, and prints what the page says: ${page}, line ${line}`, () => {
      const output = outputOf(code);
      if (printed !== undefined) assert.equal(output, printed);
    });
  }
}

test('the tests that the guarantees name exist', () => {
  const guarantees = textOf('docs/guarantees.md').replace(/\s+/g, ' ');
  for (const [, file, titles] of guarantees.matchAll(/`([\w-]+\.test\.js)`,([^`.]*)/g)) {
    const source = textOf(`test/${file}`);
    for (const [, title] of titles.matchAll(/"(.+?)"/g)) {
      const isThere = source.includes(`'${title}`) || source.includes(`\`${title}`);
      assert.ok(isThere, `${file}: ${title}`);
    }
  }
});
