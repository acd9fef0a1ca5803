// The types of Node.js where they are installed.
// @ts-ignore
/// <reference types="node" />

import type * as synchronous from '../index.js';

declare const brand: unique symbol;

// Only where the types of the runtime know them.
type Signal = typeof globalThis extends { AbortSignal: { prototype: infer S } } ? S : never;
type AsyncDisposable = SymbolConstructor extends { readonly asyncDispose: infer S }
  ? { readonly [Name in S & symbol]: () => Promise<void> }
  : unknown;

type WithoutStage<A> = A extends [...before: infer _, stage: synchronous.StageCallback] ? never : A;
type WithRoot<A> = A extends [handle: synchronous.RootHandle, ...others: infer Others]
  ? [root: promises.Root, ...others: Others]
  : A;
type Promised<F> = F extends (...args: infer A) => infer R
  ? (
      ...args: [...args: WithRoot<WithoutStage<A>>, options?: promises.Options]
    ) => Promise<R extends synchronous.RootHandle ? promises.Root : R>
  : never;
type Functions = Omit<typeof synchronous, 'setTestHook' | 'exchangeForTest'>;

/**
 * The functions of `tarvek`, in threads: each has the same arguments and an object of options after
 * them, and returns a promise of the same result. It rejects where the synchronous function throws,
 * and never throws. What it differs in:
 *
 * - A root comes from `openRoot` or `openRelative` of this module, and holds a descriptor for each
 *   thread.
 * - Calls can run at the same time and end in any order, as in `node:fs/promises`. {@link close} waits
 *   for the calls before it.
 * - Bytes are copied when the call is made. The caller may use its memory again at once.
 * - `write` and `create` take no stage callback.
 * - If a thread ends early, its call rejects with `FILESYSTEM_FAILURE` and a `cause`. What the call
 *   changed is unknown then.
 *
 * The other types are those of `tarvek`.
 *
 * ```js
 * const root = await openRoot('/srv/app/data');
 * await write(root, ['reports', 'today.json'], Buffer.from('{}'));
 * await close(root);
 * ```
 */
declare const promises: { [Name in keyof Functions]: Promised<Functions[Name]> };

declare namespace promises {
  /**
   * An open directory, from `openRoot` or `openRelative` of this module. It has no properties, and only
   * the functions of this module accept it, in the thread that opened it. A forgotten root is closed
   * some time after it was garbage-collected. `await using` closes it at the end of its block.
   */
  type Root = { readonly [brand]: 'Root' } & AsyncDisposable;

  /** The last argument of every function. */
  interface Options {
    /** Rejects a call that no thread has taken yet with the reason of the signal. */
    signal?: Signal;
  }
}

export = promises;
