// The types of Node.js where they are installed.
// @ts-ignore
/// <reference types="node" />

// @ts-ignore
import type { FileHandle } from 'node:fs/promises';
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
type Functions = Omit<typeof synchronous, 'setTestHook' | 'exchangeForTest' | keyof More>;

// What the functions of this module offer beyond the synchronous ones.
interface More {
  /**
   * Closes a root, after the calls that were made before. Every call after it is refused. Closing a
   * root again does nothing.
   *
   * @param options The signal is only looked at when the call is made. If it is aborted by then, the
   *   call rejects with its reason and the root stays open. Later it has no effect.
   * @throws `FILESYSTEM_FAILURE` The argument is not a root of this module, or the system reported an
   *   error.
   */
  close(root: promises.Root, options?: promises.Options): Promise<void>;

  /**
   * As the synchronous `read`.
   *
   * @param options With `maxBytes`, a larger file rejects with `FILESYSTEM_FAILURE` before memory is
   *   taken for it. The limit needs `/proc`.
   */
  read(
    root: promises.Root,
    segments: synchronous.Segments,
    options?: promises.ReadOptions,
  ): Promise<Awaited<ReturnType<typeof synchronous.read>>>;

  /** As the synchronous `capture`. */
  capture(
    root: promises.Root,
    paths: readonly synchronous.Segments[],
    options?: promises.CaptureOptions,
  ): Promise<synchronous.CaptureRecord[]>;

  /**
   * Opens a regular file for reading, whatever its size. Refuses what `read` refuses.
   *
   * The file stays the same one, even if its name or the root leads elsewhere later. Close it. A file
   * that is renamed, replaced or gets a second hard link while it is open can still be read.
   *
   * @returns A `FileHandle` of `node:fs/promises`: use `stat`, `read`, `createReadStream`, and `fd` for
   *   `publishVerified`. It is read-only.
   * @throws `PATH_OUT_OF_ROOT` Wrong segments; or the entry is a symlink, has a second hard link or is
   *   not a regular file; or a parent is a symlink or not a directory, or one of them was replaced
   *   during the call: retry.
   * @throws `HANDLE_CLOSED` The root is closed.
   * @throws `NOT_FOUND` The file or a parent directory is missing.
   * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors; or `/proc` is missing.
   */
  openFile(
    root: promises.Root,
    segments: synchronous.Segments,
    options?: promises.Options,
  ): Promise<FileHandle>;

  /**
   * Gives a file its final name if its content has the expected hash: `publishVerified` for content
   * that does not fit into memory. Never replaces an entry. Creates missing parent directories of the
   * new name with mode 0700, before the umask. A crash can leave the file under both names; see
   * {@link finishPublish}.
   *
   * Flushed: the content, the new name, the removal of the old one, and every new directory.
   *
   * @param file The candidate, from {@link openFile}. It stays open, and its position does not move.
   *   Do not close it before the promise settles: the call would reject, with `CANDIDATE_CHANGED`,
   *   `NOT_FOUND` or another code.
   * @param candidate The path of the file.
   * @param destination Its final path.
   * @throws `CANDIDATE_CHANGED` The content has another hash or changed during the call; or the
   *   candidate is missing, is not the open file or has a second hard link; or the file is open for
   *   writing.
   * @throws `OPTIMISTIC_CONFLICT` An entry has the final name. The candidate stays.
   * @throws `PATH_OUT_OF_ROOT` A wrong argument or a closed root or file; or a parent is a symlink or
   *   not a directory, or was replaced during the call.
   * @throws `NOT_FOUND` A parent directory of the candidate is missing, or a name vanished during the
   *   call.
   * @throws `FILESYSTEM_FAILURE` A wrong option; or the system refused: permission, space, another
   *   file system, a failed flush; or `/proc` is missing. The candidate keeps its name and has no other
   *   one. Exceptions: after a failed flush of its directory it has the final name only. If the call
   *   could not remove the final name again, it has both.
   */
  publishFile(
    root: promises.Root,
    file: Pick<FileHandle, 'fd'>,
    candidate: synchronous.Segments,
    destination: synchronous.Segments,
    options: promises.PublishOptions,
  ): Promise<void>;

  /**
   * Finishes a publication that a crash stopped. Call it after a crash, while nothing publishes the
   * same candidate; other processes may write.
   *
   * If only the destination exists, the result is `'published'`, whatever regular file that is. The
   * call knows neither the candidate nor its content then. If another program can create a file with
   * this name, open the file with {@link openFile} and compare its hash with the expected one.
   *
   * @returns What there is afterwards. `'published'`: a file has the final name only, and both names
   *   are flushed. `'candidate'`: the file was not published. `'nothing'`: neither name exists.
   * @throws `OPTIMISTIC_CONFLICT` Both names exist and are different entries. Nothing was removed.
   * @throws `PATH_OUT_OF_ROOT` Wrong segments or a closed root; or both paths lead to one entry; or the
   *   file has a third hard link, or a name leads to something that is not a regular file; or a parent
   *   is a symlink or not a directory, or an entry was replaced during the call: retry.
   * @throws `FILESYSTEM_FAILURE` The system refused: permission, a failed flush; or `/proc` is missing.
   */
  finishPublish(
    root: promises.Root,
    candidate: synchronous.Segments,
    destination: synchronous.Segments,
    options?: promises.Options,
  ): Promise<'published' | 'candidate' | 'nothing'>;

  /**
   * Removes the temporary files that a crash in the middle of a `write` left in a directory and in all
   * directories below it: regular files with one hard link and the name of a temporary file.
   *
   * Flushed: the removals.
   *
   * @param segments The directory. The root itself cannot be addressed.
   * @returns The paths of the removed files below the root, the names joined with `/`, in no
   *   particular order.
   * @throws `PATH_OUT_OF_ROOT` Wrong segments; or a directory on the way is a symlink or not a
   *   directory, or was replaced during the call.
   * @throws `HANDLE_CLOSED` The root is closed.
   * @throws `NOT_FOUND` The directory or a parent is missing.
   * @throws `FILESYSTEM_FAILURE` A wrong option; or the system refused: permission, descriptors, a
   *   failed flush; or `/proc` is missing. Some files may be removed.
   */
  removeLeftovers(
    root: promises.Root,
    segments: synchronous.Segments,
    options: promises.LeftoverOptions,
  ): Promise<string[]>;
}

/**
 * The functions of `tarvek`, in threads: each has the same arguments and an object of options after
 * them, and returns a promise of the same result. It rejects where the synchronous function throws,
 * and never throws. What it differs in:
 *
 * - A root comes from `openRoot` or `openRelative` of this module, and holds two descriptors for each
 *   thread.
 * - Calls can run at the same time and end in any order, as in `node:fs/promises`. {@link close} waits
 *   for the calls before it.
 * - Bytes are copied when the call is made. The caller may use its memory again at once.
 * - `write` and `create` take no stage callback.
 * - If a thread ends early, its call rejects with `FILESYSTEM_FAILURE` and a `cause`. What the call
 *   changed is unknown then.
 *
 * The other types are those of `tarvek`. Of its own, the module has open files, publications of large
 * files, and recovery after a crash. These need `/proc`.
 *
 * ```js
 * const root = await openRoot('/srv/app/data');
 * await write(root, ['reports', 'today.json'], Buffer.from('{}'));
 * await close(root);
 * ```
 */
declare const promises: { [Name in keyof Functions]: Promised<Functions[Name]> } & More;

declare namespace promises {
  /**
   * An open directory, from `openRoot` or `openRelative` of this module. It has no properties, and only
   * the functions of this module accept it, in the thread that opened it. A forgotten root is closed
   * some time after it was garbage-collected. `await using` closes it at the end of its block.
   */
  type Root = { readonly [brand]: 'Root' } & AsyncDisposable;

  /** The last argument of every function. */
  interface Options {
    /**
     * Rejects a call that no thread has taken yet with the reason of the signal. {@link close} only
     * looks at it when the call is made.
     */
    signal?: Signal;
  }

  interface ReadOptions extends Options {
    /** The largest size that is read, in bytes. */
    maxBytes?: number;
  }

  interface CaptureOptions extends Options {
    /**
     * Called at most ten times a second while `capture` reads, in the asynchronous context of the call.
     * What it throws rejects the call when the reading has ended.
     */
    onProgress?: (progress: CaptureProgress) => void;
  }

  interface CaptureProgress {
    /** How many files were read. */
    files: number;
    /** How many directories were read with everything below them. */
    directories: number;
    /** The path of the last one below the root, the names joined with `/`. */
    path: string;
  }

  interface PublishOptions extends Options {
    /** The SHA-256 of the content: 64 hexadecimal digits. */
    sha256: string;
  }

  interface LeftoverOptions extends Options {
    /**
     * The age from which a file is removed, in milliseconds since its last change, at least 0. Choose
     * more than your longest `write` takes: a `write` whose temporary file is removed fails.
     */
    olderThan: number;
  }
}

export = promises;
