// Compiled by scripts/check-package.js without the types of Node.js, never run.

import { capture, openRoot, read, removeIfEquals, snapshot, write } from 'tarvek';
import { check } from 'tarvek/check';
import * as promises from 'tarvek/promises';

const root = openRoot('/srv/data');
const bytes: Uint8Array = read(root, ['f']);
write(root, ['f'], new Uint8Array(2));
removeIfEquals(root, ['f'], bytes);
const [record] = capture(root, [['f']]);
if (record.type === 'file') write(root, ['g'], record.body.subarray(1));
const contents: Uint8Array[] = Object.values(snapshot(root, ['d']));
write(root, ['g'], contents[0]);
for (const { bytes } of check('data')) write(root, ['g'], bytes ?? contents[0]);

// @ts-expect-error bytes are no text
write(root, ['f'], read(root, ['g']).toString());

const photo: Uint8Array = await promises.read(await promises.openRoot('/srv'), ['f']);
await promises.write(await promises.openRoot('/srv'), ['f'], photo, {});
