'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { files } = require('../package.json');

process.chdir(path.join(__dirname, '..'));
const packed = ['README.md', 'LICENSE', ...files];
const names = packed.concat(fs.readdirSync('docs').map((name) => `docs/${name}`));
const pages = names.filter((name) => name.endsWith('.md'));
const textOf = (file) => fs.readFileSync(file, 'utf8');
const matches = (pattern) => pages.flatMap((page) => [...textOf(page).matchAll(pattern)]);
const slugOf = (line) => line.replace(/^#+ |[^\w -]/g, '').replaceAll(' ', '-');

test('links lead to packed files and to headings', () => {
  for (const page of pages) {
    for (const [, link] of textOf(page).matchAll(/\]\((?!https:)(.+?)\)/g)) {
      const [file, anchor] = link.split('#');
      const target = file ? path.join(path.dirname(page), file) : page;
      const headings = textOf(target)
        .toLowerCase()
        .match(/^#+ .*/gm);
      const isThere = !anchor || headings.map(slugOf).includes(anchor);
      assert.ok(isThere && packed.some((name) => target.startsWith(name)), `${page}: ${link}`);
    }
  }
});

test('examples run, and print what the page says', (t) => {
  // In build, since only a file in this package finds it by its name.
  const cwd = fs.mkdtempSync('build/docs-');
  t.after(() => fs.rmSync(cwd, { recursive: true }));
  const env = { ...process.env, NODE_TEST_CONTEXT: undefined };
  for (const [, code, printed] of matches(/^```js\n(.*?)^```\n(?:\n```text\n(.*?)^```\n)?/gms)) {
    const name = code.startsWith('import') ? 'example.mjs' : 'example.cjs';
    for (const left of fs.readdirSync(cwd)) fs.rmSync(path.join(cwd, left), { recursive: true });
    fs.writeFileSync(path.join(cwd, name), code);
    const run = spawnSync(process.execPath, [name], { cwd, env, encoding: 'utf8' });
    assert.deepEqual([run.status, run.stdout], [0, printed ?? run.stdout], code + run.stderr);
  }
});

test('the tests that the guarantees name exist', () => {
  for (const [, file, titles] of matches(/`(\w+\.test\.js)`,([^`.]*)/g)) {
    for (const [, title] of titles.replace(/\s+/g, ' ').matchAll(/"(.+?)"/g)) {
      assert.ok(textOf(`test/${file}`).includes(`'${title}`), `${file}: ${title}`);
    }
  }
});
