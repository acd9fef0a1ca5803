// Compiled by scripts/check-package.js, never run: what a CommonJS user may and may not write.
import type * as types from 'tarvek';

import tarvek = require('tarvek');

import { read as readByName } from 'tarvek';
import { check, format } from 'tarvek/check';

const root: types.RootHandle = tarvek.openRoot('/srv/data');
const path = ['reports', 'today.json'] as const;
const body: Uint8Array = new Uint8Array(2);
const read: Buffer = tarvek.read(tarvek.openRelative(root, ['reports']), path);
const names: string[] = tarvek.list(root, ['reports']);
const there: boolean =
  tarvek.exists(root, names) || tarvek.ensureRelativeSymlink(root, ['l'], path);
const { dev, ino }: { dev: bigint; ino: bigint } = tarvek.rootIdentity(tarvek.open('/srv'));
const same: typeof tarvek.read = readByName;
tarvek.create(root, path, body);
tarvek.write(root, path, body, (stage) => stage === 'after-temp-write' && there && dev === ino);
tarvek.append(root, path, 8, 4, same(root, path));
tarvek.append(root, path, 8, 4, body);
tarvek.ensureDirectory(root, ['reports']);
tarvek.move(root, path, ['reports', 'yesterday.json']);
tarvek.removeIfEquals(root, path, read);
tarvek.removeIfEquals(root, path, body);
tarvek.publishVerified(root, 3, ['candidate'], path, body);
tarvek.exchangeForTest(root, 'a', 'b');
tarvek.setTestHook(({ point, segment, index }) => (point === 'append-write' ? index : segment));
for (const reset of [tarvek.setTestHook, () => tarvek.setTestHook(null)]) reset();
tarvek.remove(root, path);
tarvek.close(root);

const [record] = tarvek.capture(root, [path, ['photos']]);
const contents: Buffer[] = Object.values(tarvek.snapshot(root, ['photos']));
contents.push(record.type === 'file' ? record.body : Buffer.alloc(record.mode));
const message = ({ code, stack }: types.TarvekError): string => stack ?? code;
names.push(message(new Error() as types.TarvekError));

for (const found of check('data', path, ['photos'])) {
  names.push(format(found), found.kind === 'symlink' ? found.path : found.why);
  contents.push(found.bytes ?? Buffer.from(found.code ?? 'NOT_FOUND'));
  // @ts-expect-error there is no such kind
  found.kind === 'link';
}

// @ts-expect-error a path is an array of names
check('data', 'reports/today.json');
// @ts-expect-error a path is an array of names
tarvek.read(root, 'reports/today.json');
// @ts-expect-error a handle comes from openRoot or openRelative
tarvek.read({}, path);
// @ts-expect-error nor is a path a handle
tarvek.close('/srv/data');
// @ts-expect-error bytes are no text
tarvek.write(root, path, 'text');
// @ts-expect-error the stage callback is left out or is a function
tarvek.create(root, path, body, undefined);
// @ts-expect-error there is no such stage
tarvek.write(root, path, body, (stage) => stage === 'after-rename');
// @ts-expect-error both sizes are needed
tarvek.append(root, path, 8, body);
// @ts-expect-error sizes are numbers
tarvek.append(root, path, 8n, 4n, body);
// @ts-expect-error several paths are an array of arrays
tarvek.capture(root, path);
// @ts-expect-error a record may be a directory, which has no body
tarvek.capture(root, [path])[0].body;
// @ts-expect-error what has no prototype has no methods
tarvek.snapshot(root, ['photos']).toString();
// @ts-expect-error a descriptor is a number
tarvek.publishVerified(root, '3', ['candidate'], path, body);
// @ts-expect-error entries to exchange are named by strings
tarvek.exchangeForTest(root, ['a'], ['b']);
// @ts-expect-error a hook is a function
tarvek.setTestHook(42);
// @ts-expect-error there is no such point
tarvek.setTestHook(({ point }) => point === 'pre-affect');
// @ts-expect-error there is no such code
(undefined as unknown as types.TarvekError).code = 'ENOENT';
// @ts-expect-error nothing takes more than it needs
tarvek.openRoot('/srv', { create: true });
