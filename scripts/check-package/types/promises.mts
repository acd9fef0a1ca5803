// Compiled by scripts/check-package.js, never run: what a user of the promises may and may not write.

import type { Segments, TarvekError } from 'tarvek';
import * as synchronous from 'tarvek';
import * as everything from 'tarvek/promises';
import promises, { type Options, openRoot, type Root, read, write } from 'tarvek/promises';

const path: Segments = ['photos', 'a.jpg'];
const options: Options = { signal: new AbortController().signal };

export async function use(root: Root): Promise<string[]> {
  const inner: Root = await promises.openRelative(root, ['photos'], options);
  const body: Buffer = await read(inner, path, {});
  await write(root, path, body, options);
  await promises.append(root, path, 8, 4, new Uint8Array(2), undefined);
  const there: boolean = await everything.exists(root, path);
  const [record] = await promises.capture(root, [path]);
  if (record.type === 'file' && there) await promises.create(root, path, record.body);
  const photos: Record<string, Buffer> = await promises.snapshot(root, path);
  const { dev }: { dev: bigint } = await promises.rootIdentity(root);
  await promises.close(root, options);
  return promises.list(await openRoot(`/srv/${dev}`, options), Object.keys(photos));
}
const code = (error: TarvekError): string => error.code;
use(await openRoot('/srv')).catch(code);

const root = await openRoot('/srv');
// @ts-expect-error a promise is no Buffer
read(root, path).length;
// @ts-expect-error the roots of the two modules differ
await read(synchronous.openRoot('/srv'), path);
// @ts-expect-error in both directions
synchronous.read(root, path);
// @ts-expect-error a root has no properties
root.fd;
// @ts-expect-error a stage callback cannot leave its thread
await write(root, path, new Uint8Array(2), () => {});
// @ts-expect-error there is no such option
await read(root, path, { size: 1 });
// @ts-expect-error a signal is an AbortSignal
await read(root, path, { signal: 'stop' });
// @ts-expect-error hooks are for tests, in their own thread
promises.setTestHook;
