'use strict';

const assert = require('node:assert/strict');
const { once } = require('node:events');
const fs = require('node:fs');
const path = require('node:path');
const { text } = require('node:stream/consumers');
const test = require('node:test');
const { Worker } = require('node:worker_threads');
const { files } = require('../package.json');
const { enterSandbox, leaveSandbox } = require('./support/harness.js');

const PACKAGE = path.join(__dirname, '..');
process.chdir(PACKAGE);
const textOf = (file) => fs.readFileSync(file, 'utf8');
const packed = ['README.md', 'LICENSE', ...files];
const inDocs = fs.readdirSync('docs').map((name) => `docs/${name}`);
const pages = [...packed, ...inDocs].filter((name) => name.endsWith('.md'));

// In the package, because only a file in it can require it by its name.
const scripts = path.resolve(fs.mkdtempSync('build/docs-'));
test.after(() => fs.rmSync(scripts, { recursive: true }));
const env = { ...process.env, NODE_TEST_CONTEXT: '', UV_THREADPOOL_SIZE: '1' };

// Runs a program in an empty directory. In a thread, because a process takes longer to start.
async function runExample(code) {
  const file = path.join(scripts, code.startsWith('import') ? 'example.mjs' : 'example.cjs');
  fs.writeFileSync(file, code);
  const ctx = enterSandbox({});
  process.chdir(ctx.root);
  try {
    const worker = new Worker(file, { env, stdout: true });
    const [[status], stdout] = await Promise.all([once(worker, 'exit'), text(worker.stdout)]);
    return { status, stdout };
  } finally {
    process.chdir(PACKAGE);
    leaveSandbox(ctx);
  }
}

// The anchors of a page's headings.
function anchorsIn(page) {
  const headings = textOf(page).match(/^#+ .*/gm);
  const titles = headings.map((line) => line.toLowerCase().replace(/^#+ |[^\w -]/g, ''));
  return titles.map((title) => title.replaceAll(' ', '-'));
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
    test(`an example runs, and prints what the page says: ${page}, line ${line}`, async () => {
      const run = await runExample(code);
      assert.equal(run.status, 0);
      if (printed !== undefined) assert.equal(run.stdout, printed);
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
