// The types of Node.js where they are installed; without them a Buffer counts as a Uint8Array.
// @ts-ignore
/// <reference types="node" />

/**
 * Synchronous file operations that stay below one directory, even while other processes rename,
 * replace or link entries in it. Linux only.
 *
 * Open a directory once with {@link openRoot}. Then address everything below it with arrays of
 * names:
 *
 * ```js
 * const root = openRoot('/srv/app/data');
 * write(root, ['reports', 'today.json'], Buffer.from('{}'));
 * close(root);
 * ```
 *
 * Every function blocks the calling thread until it is done. It returns, or it throws one
 * {@link TarvekError} with one of the codes listed for it. Exceptions of your own code reach the
 * caller unchanged: those of a test hook, of a stage callback, of a getter or `Proxy` behind an
 * element of a path, of a replaced `Object.create`, and of a setter on `Object.prototype`,
 * `Array.prototype` or `Error.prototype`. A call has no time limit: docs/limits.md lists what can
 * make it wait.
 *
 * "Flushed" means that `fsync` succeeded before the function returned. Pass exactly the arguments
 * that are declared: an extra argument is an error, except in `setTestHook`,
 * which ignores it.
 *
 * A race with another process can make a correct call fail, usually with `PATH_OUT_OF_ROOT`. For
 * example, a {@link read} fails now and then while another process replaces the file with
 * {@link write}. Such a call can be repeated.
 *
 * Bytes are passed as a Buffer, another typed array or a DataView, and are returned as a Buffer.
 * The bytes are used as they are in memory. An array that is detached before the call, or by a
 * getter on a path, counts as empty.
 */

declare const brand: unique symbol;

type Buffer = typeof globalThis extends { Buffer: { alloc(size: number): infer B } }
  ? B
  : Uint8Array;

/**
 * An open directory, from {@link openRoot} or {@link openRelative}. It has no properties, and only
 * the functions of this module accept it. It holds one file descriptor until {@link close}. A
 * forgotten handle is closed some time after it was garbage-collected. A handle cannot be sent to
 * another thread.
 */
export interface RootHandle {
  readonly [brand]: 'RootHandle';
}

/**
 * A path below a root, as an array with at least one name. The last name is the entry, the others
 * are its parent directories. A name is not empty, is not `.` or `..`, and contains no `/`, `\` or
 * NUL. A symlink is never followed. A lone surrogate becomes U+FFFD.
 *
 * @example ['reports', '2024', 'today.json']
 */
export type Segments = readonly string[];

/**
 * Why a call failed.
 *
 * - `PATH_OUT_OF_ROOT`: the call was refused: a wrong argument or number of arguments, a symlink, a
 *   file with a second hard link, a wrong file type, such as a directory in a file's place, or an
 *   entry that was replaced during the call. Retry it a few times, with short pauses; after a race,
 *   a retry usually succeeds.
 * - `NOT_FOUND`: the entry or a parent directory is missing. From {@link write}, {@link create},
 *   {@link append} and {@link ensureDirectory}, another process removed a directory: retry, unless
 *   the root itself was removed.
 * - `HANDLE_CLOSED`: the handle is closed, or the value is not a handle. Some functions report this
 *   with another code.
 * - `OPTIMISTIC_CONFLICT`: the condition of the call does not hold. Read the present state and
 *   decide again.
 * - `CANDIDATE_CHANGED`: the file to publish is not the file that was verified.
 * - `FILESYSTEM_FAILURE`: the system refused or failed, another process holds a lease on the file,
 *   or an argument has the wrong type. If a flush failed, the change itself is visible.
 */
export type ErrorCode =
  | 'PATH_OUT_OF_ROOT'
  | 'NOT_FOUND'
  | 'HANDLE_CLOSED'
  | 'OPTIMISTIC_CONFLICT'
  | 'CANDIDATE_CHANGED'
  | 'FILESYSTEM_FAILURE';

/**
 * What the functions throw: an ordinary `Error` with a `code` and a fixed message. It contains no
 * path and no system error text. There is no class of this name to use with `instanceof`.
 *
 * @example if ((error as TarvekError).code === 'NOT_FOUND') return undefined;
 */
export interface TarvekError extends Error {
  readonly code: ErrorCode;
}

/**
 * The device and inode number of a directory. No other directory of this machine has the same pair
 * at the same time.
 */
export interface Identity {
  dev: bigint;
  ino: bigint;
}

/** A directory, as {@link capture} found it. It has no property `body`. */
export interface DirectoryRecord {
  /** Path below the root, the names joined with `/`. */
  path: string;
  type: 'directory';
  /** The nine permission bits, `0o000` to `0o777`. */
  mode: number;
}

/** A regular file, as {@link capture} found it. */
export interface FileRecord {
  /** Path below the root, the names joined with `/`. */
  path: string;
  type: 'file';
  /** The nine permission bits, `0o000` to `0o777`. */
  mode: number;
  /** The whole content. */
  body: Buffer;
}

/** One object in the result of {@link capture}. `type` tells which of the two it is. */
export type CaptureRecord = DirectoryRecord | FileRecord;

/**
 * The result of {@link snapshot}: the path of each file below the directory, joined with `/`, and
 * its content. The object has no prototype, so a file named `constructor` is an ordinary key. Use
 * `Object.keys`, `Object.entries`, `in` and `[path]`. Methods such as `hasOwnProperty` do not
 * exist.
 */
export type SnapshotFiles = { [path: string]: Buffer } & {
  readonly [Member in keyof typeof Object.prototype]: never;
};

/**
 * The moments of one {@link write}, in their order. Up to `before-file-rename` the file has its old
 * content. From `after-file-rename` on it has the new content.
 */
export type WriteStage =
  | 'after-temp-write'
  | 'after-file-sync'
  | 'before-file-rename'
  | 'after-file-rename'
  | 'after-directory-sync';

/**
 * Called in the middle of a {@link write}. What it throws ends the write and reaches the caller. At
 * the first three stages, the file keeps its old content and the temporary file is removed. At the
 * last two, the new content stays.
 */
export type StageCallback = (this: typeof globalThis, stage: WriteStage) => void;

/**
 * The moments at which the test hook is called.
 *
 * | point | called by | `segment` |
 * |---|---|---|
 * | `root-ancestor-open` | `openRoot`, `open`: each directory is open, not checked yet | its name |
 * | `relative-directory-open` | `openRelative`: the same | its name |
 * | `external-create` | `openRoot`, `open`, `openRelative`: before the handle is created | empty |
 * | `ancestor-open` | all others with segments: each parent directory is open, not checked yet | its name |
 * | `pre-effect` | the same: before the path is proved again and the effect begins | last name |
 * | `publish-before-validation` | `publishVerified`: before the candidate is verified | its last name |
 * | `remove-if-equals-open` | `removeIfEquals`: before the file is opened | last name |
 * | `remove-if-equals-unlink` | `removeIfEquals`: the content was compared, the file is not removed yet | last name |
 * | `append-leaf-open` | `append`: before the file is opened | last name |
 * | `append-write` | `append`: before the bytes are written; may return how many at most | last name |
 * | `append-data-fsync` | `append`: before the file is flushed | last name |
 * | `append-directory-fsync` | `append`: before the directory is flushed | last name |
 * | `capture-file-read` | `capture`: each file was read and is not checked again yet | whole path |
 * | `capture-directory-read` | `capture`: the contents of each directory were read | whole path |
 */
export type HookPoint =
  | 'root-ancestor-open'
  | 'relative-directory-open'
  | 'external-create'
  | 'ancestor-open'
  | 'pre-effect'
  | 'publish-before-validation'
  | 'remove-if-equals-open'
  | 'remove-if-equals-unlink'
  | 'append-leaf-open'
  | 'append-write'
  | 'append-data-fsync'
  | 'append-directory-fsync'
  | 'capture-file-read'
  | 'capture-directory-read';

/** The argument of the test hook. */
export interface HookEvent {
  point: HookPoint;
  /** The name, or for the `capture-` points the whole path, that the step concerns. */
  segment: string;
  /**
   * The position of that name in its path, from 0; always 0 at `external-create`,
   * `publish-before-validation` and the `capture-` points.
   */
  index: number;
}

/**
 * A test hook. It may do anything: change the disk, close the handle, call tarvek. What it throws
 * ends the operation and reaches the caller. tarvek calls made inside the hook call the hook again.
 * Its return value counts only at `append-write`: a number, converted to an unsigned 32-bit
 * integer, limits how many bytes are written. This forces a short write. 0 makes the append fail
 * before it writes.
 */
export type TestHook = (this: typeof globalThis, event: HookEvent) => unknown;

/**
 * Opens a directory as a root. The handle stands for this directory even after it is renamed.
 *
 * @param path Absolute. It is not `/`, does not end with `/`, and contains no `//`, `\` or NUL. No
 *   name in it is `.` or `..`, and none is a symlink. Pass `fs.realpathSync(path)` if one may be.
 * @returns A new handle. {@link close} it.
 * @throws `PATH_OUT_OF_ROOT` The path does not have this form, contains a symlink or something that
 *   is not a directory, or a directory was replaced during the call.
 * @throws `NOT_FOUND` A directory of the path is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused. Every directory of the path must be readable.
 */
export function openRoot(path: string): RootHandle;

/** The same as {@link openRoot}, under a shorter name. */
export function open(path: string): RootHandle;

/**
 * Opens a directory below a root as a second root. Closing one leaves the other open.
 *
 * @param segments The directory.
 * @returns A new handle. {@link close} it.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or a directory is a symlink or not a directory, or was
 *   replaced during the call.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` A directory is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors.
 */
export function openRelative(handle: RootHandle, segments: Segments): RootHandle;

/**
 * Closes a handle. Closing it again does nothing.
 *
 * @throws `FILESYSTEM_FAILURE` The argument is not a handle, or the system reported an error. After
 *   such an error, never use the handle again: its descriptor may belong to another file by now.
 */
export function close(handle: RootHandle): void;

/**
 * Tells which directory the handle was opened on.
 *
 * @returns A new object with `dev` and `ino`, as `fs.statSync(path, { bigint: true })` returns
 *   them.
 * @throws `HANDLE_CLOSED` The handle is closed, or the value is not a handle.
 */
export function rootIdentity(handle: RootHandle): Identity;

/**
 * Tells whether an entry exists, whatever its type.
 *
 * @returns `false` if the entry or a parent directory is missing.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or the entry is a symlink or a file with a second hard
 *   link; or a parent is a symlink or not a directory, or was replaced during the call.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors.
 */
export function exists(handle: RootHandle, segments: Segments): boolean;

/**
 * Lists the names in a directory: entries of all types, including temporary files that a crash left
 * behind.
 *
 * @param segments The directory. The root itself cannot be addressed.
 * @returns A new array, sorted by the bytes of the names. Bytes that are not UTF-8 appear as
 *   U+FFFD. Such a name cannot be passed back.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or a directory is a symlink or not a directory, or was
 *   replaced during the call.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The directory or a parent is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory.
 */
export function list(handle: RootHandle, segments: Segments): string[];

/**
 * Reads files and whole directories into memory. Fails if a file changes while it is read,
 * or if names in a directory change before all of its contents are read. A file that changes after it
 * was read is not noticed.
 *
 * @param paths At least one path. Each is a file, or a directory with everything below it. No file
 *   may be reached twice.
 * @returns A new array with a record for every directory and every file: the paths in their order,
 *   a directory before its contents, names sorted by their bytes.
 * @throws `PATH_OUT_OF_ROOT` Wrong paths or a closed handle. Or, as the message tells: an entry is
 *   a symlink, a file with a second hard link, or neither a file nor a directory; a file was
 *   reached twice; or a file or directory changed while it was read. Or a parent is a symlink or not a
 *   directory, or was replaced.
 * @throws `NOT_FOUND` A path or a parent directory is missing, or an entry vanished during the
 *   call.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory; or a file is
 *   larger than the largest Buffer.
 */
export function capture(handle: RootHandle, paths: readonly Segments[]): CaptureRecord[];

/**
 * Reads all files below a directory into memory. Unlike {@link capture}, it does not notice most
 * changes during the call: a file can come back with old and new bytes.
 *
 * @param segments The directory.
 * @returns A new object without a prototype: from the path below the directory to the content. Two names that
 *   differ only in bytes that are not UTF-8 share one key. The last one stays.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or a directory is a symlink or not a directory, or was
 *   replaced during the call; or an entry below it is a symlink, a file with a second hard link,
 *   neither a file nor a directory, or was replaced while it was opened.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The directory or a parent is missing, or an entry vanished during the call.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory; or a file is
 *   larger than the largest Buffer.
 */
export function snapshot(handle: RootHandle, segments: Segments): SnapshotFiles;

/**
 * Reads a regular file, up to its size when it was opened.
 *
 * @returns A new Buffer with the content.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or the entry is a symlink, has a second hard link or
 *   is not a regular file; or a parent is a symlink or not a directory, or was replaced during the
 *   call. Also if another process replaced the file with {@link write} at this moment: retry.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The file or a parent directory is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory; or the file is
 *   larger than the largest Buffer.
 */
export function read(handle: RootHandle, segments: Segments): Buffer;

/**
 * Replaces a file atomically, or creates it: the file has the old content or the new, as long as no
 * other process edits the temporary file. Creates missing parent directories with mode 0700. The
 * file gets mode 0600 and belongs to this process, whatever the old file had. Both modes are before
 * the umask.
 *
 * Flushed: the content, the name, and every new directory.
 *
 * @param body Used during the call only.
 * @param stage Called at the five moments of {@link WriteStage}. Leave it out if you need none:
 *   `undefined` is an error.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments or a closed handle; or the entry is a symlink, has a
 *   second hard link or is not a regular file; or a parent is a symlink or not a directory, or was
 *   replaced during the call. The file keeps its old content.
 * @throws `NOT_FOUND` The directory or the temporary file was removed during the call. The file
 *   keeps its old content.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush; or `body` is
 *   neither a typed array nor a DataView or lost its memory during the call, or `stage` is not a
 *   function. The file keeps its old content, unless the last step failed, the flush of the
 *   directory.
 */
export function write(
  handle: RootHandle,
  segments: Segments,
  body: ArrayBufferView,
  ...stage: [] | [stage: StageCallback]
): void;

/**
 * Creates a file; fails if it exists. Creates missing parent directories with mode 0700. The file
 * gets mode 0600. Both modes are before the umask.
 *
 * Flushed: the content, the name, and every new directory. The file is written in place. A file
 * that could not be written completely stays.
 *
 * @param body Used during the call only.
 * @param stage Accepted because {@link write} has it, and never called.
 * @throws `OPTIMISTIC_CONFLICT` An entry of that name exists.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments or a closed handle; or the entry is a symlink or a file
 *   with a second hard link; or a parent is a symlink or not a directory, or was replaced during
 *   the call.
 * @throws `NOT_FOUND` The directory was removed during the call.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush; or `body` is
 *   neither a typed array nor a DataView or lost its memory during the call, or `stage` is not a
 *   function. The file may exist with a part of `body`.
 */
export function create(
  handle: RootHandle,
  segments: Segments,
  body: ArrayBufferView,
  ...stage: [] | [stage: StageCallback]
): void;

/**
 * Adds bytes to the end of a file, or creates it. Fails if the file is shorter than `expectedSize`.
 * A longer file is accepted, so others may append as well. A new file gets mode 0600 and new parent
 * directories get mode 0700, both before the umask.
 *
 * Flushed: the bytes, the name, and every new directory.
 *
 * Sizes are converted to whole numbers: a fraction is cut off, and `NaN` and infinity count as 0.
 *
 * @param expectedSize The file must have at least this many bytes. 0 if the file may be missing.
 * @param minimumSize From 0 to `expectedSize`. It has no further effect.
 * @param body Used during the call only. One call writes at most 2 GiB - 4 KiB.
 * @throws `OPTIMISTIC_CONFLICT` The file is shorter than `expectedSize`. If it was missing, an
 *   empty file now exists.
 * @throws `PATH_OUT_OF_ROOT` The file is a symlink, has a second hard link or is not a regular
 *   file; or a parent is a symlink or not a directory; or one of them was replaced during the call,
 *   for example by {@link write}: retry. Nothing was appended.
 * @throws `NOT_FOUND` The file or its directory vanished during the call. Nothing was appended.
 * @throws `FILESYSTEM_FAILURE` A wrong argument or a closed handle; or `body` lost its memory
 *   during the call; or the system refused: permission, space, a failed flush, a lease of another
 *   process. The file may end with a part of `body`, or with all of it. Look before you retry.
 */
export function append(
  handle: RootHandle,
  segments: Segments,
  expectedSize: number,
  minimumSize: number,
  body: ArrayBufferView,
): void;

/**
 * Creates a directory and its missing parent directories with mode 0700, before the umask. Accepts
 * a directory that exists.
 *
 * Flushed: every new directory. Nothing is flushed for a directory that exists.
 *
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or one names a symlink or something that is not a
 *   directory, or was replaced during the call.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` A parent directory was removed during the call.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush. Also if
 *   another process created the directory at this moment: retry.
 */
export function ensureDirectory(handle: RootHandle, segments: Segments): void;

/**
 * Creates a symlink to a directory below the same root. Its relative text climbs from the symlink
 * to the root and goes down from there. Creates missing parent directories of the symlink with mode
 * 0700, before the umask. Never replaces an entry.
 *
 * Flushed: the symlink and every new directory.
 *
 * @param link The symlink.
 * @param target The directory that the symlink leads to.
 * @returns `true` if this call created the symlink, `false` if the same symlink existed.
 * @throws `OPTIMISTIC_CONFLICT` Another entry has the name of the symlink.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments or a closed handle; or the target, or a parent of the
 *   target or of the new symlink, is a symlink or not a directory, or was replaced during the call.
 * @throws `NOT_FOUND` The target or one of its parents is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush.
 */
export function ensureRelativeSymlink(
  handle: RootHandle,
  link: Segments,
  target: Segments,
): boolean;

/**
 * Removes a file, or a directory with all its contents. There is no undo: what was removed before a
 * failure is gone.
 *
 * Flushed: the removal.
 *
 * @throws `PATH_OUT_OF_ROOT` Wrong segments; or the entry, or one below it, is a symlink or a file
 *   with a second hard link; or a parent is a symlink or not a directory, or was replaced during
 *   the call.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The entry or a parent directory is missing, or an entry vanished during the
 *   call.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, a failed flush; or a
 *   directory is a mount point, or got a new entry during the call.
 */
export function remove(handle: RootHandle, segments: Segments): void;

/**
 * Removes a regular file if `expected` is its whole content and nothing about the file changes
 * during the comparison.
 *
 * Flushed: the removal.
 *
 * @param expected The whole content. Used during the call only.
 * @throws `OPTIMISTIC_CONFLICT` The content differs, or the file changed during the call. It stays.
 * @throws `PATH_OUT_OF_ROOT` The entry is a symlink, has a second hard link or is not a regular
 *   file; or a parent is a symlink or not a directory, or was replaced during the call.
 * @throws `NOT_FOUND` The file or a parent directory is missing.
 * @throws `FILESYSTEM_FAILURE` A wrong argument or a closed handle; or `expected` lost its memory
 *   during the call; or the system refused: permission, a failed flush.
 */
export function removeIfEquals(
  handle: RootHandle,
  segments: Segments,
  expected: ArrayBufferView,
): void;

/**
 * Renames a file or a directory within a root. Creates missing parent directories of the new place
 * with mode 0700, before the umask. They stay if the move then fails. The new place must be free
 * when the call looks at it. An entry that appears between this look and the rename can be
 * replaced.
 *
 * Flushed: the new name, the removal of the old one, and every new directory.
 *
 * @throws `OPTIMISTIC_CONFLICT` An entry is at the new place.
 * @throws `PATH_OUT_OF_ROOT` Wrong segments or a closed handle; or either entry is a symlink or a
 *   file with a second hard link; or a parent is a symlink or not a directory, or was replaced
 *   during the call.
 * @throws `NOT_FOUND` The entry or one of its parent directories is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush, another file
 *   system, a directory into itself.
 */
export function move(handle: RootHandle, from: Segments, to: Segments): void;

/**
 * Gives a file its final name if it is still exactly what the caller verified: the file behind the
 * caller's descriptor, with only one name, and with the expected content. Never replaces an entry.
 * Creates missing parent directories of the new name with mode 0700, before the umask. A crash can
 * leave the file under both names.
 *
 * Flushed: the new name, the removal of the old one, and every new directory. The content is not
 * flushed: create the file with {@link create} or {@link write}, or flush it yourself.
 *
 * @param candidateFd A descriptor that was opened read-only on the candidate. It stays open, and
 *   its offset does not move. Converted to a 32-bit integer: a fraction is cut off, larger numbers
 *   wrap around, and `NaN` and infinity count as 0.
 * @param candidate The file.
 * @param destination Its final name.
 * @param expected The whole content. Used during the call only.
 * @throws `CANDIDATE_CHANGED` The candidate is missing or is not the verified file, or the
 *   descriptor is not read-only.
 * @throws `OPTIMISTIC_CONFLICT` An entry has the final name. The candidate stays.
 * @throws `PATH_OUT_OF_ROOT` A wrong argument or a closed handle; or a parent is a symlink or not a
 *   directory, or was replaced during the call.
 * @throws `NOT_FOUND` A parent directory of the candidate is missing, or a name vanished during the
 *   call.
 * @throws `FILESYSTEM_FAILURE` `expected` lost its memory during the call; or the system refused:
 *   permission, space, another file system, a failed flush. The candidate keeps its name and has no
 *   other one. Exceptions: after a failed flush it has the final name only. If the call could not
 *   remove the final name again, it has both.
 */
export function publishVerified(
  handle: RootHandle,
  candidateFd: number,
  candidate: Segments,
  destination: Segments,
  expected: ArrayBufferView,
): void;

/**
 * For tests: installs the callback that every function calls at its {@link HookPoint}s, or removes
 * it. There is one hook for each JavaScript thread.
 *
 * @param hook Left out, `undefined` or `null`: no hook.
 * @throws `FILESYSTEM_FAILURE` The argument is anything else. No hook is installed then.
 */
export function setTestHook(hook?: TestHook | null): void;

/**
 * For tests: swaps two entries directly in the root, in one step, whatever their types. Makes none
 * of the checks of the other functions and flushes nothing.
 *
 * @param nameA The name of one entry, not a path.
 * @param nameB The name of the other entry.
 * @throws `PATH_OUT_OF_ROOT` A wrong name or a closed handle.
 * @throws `NOT_FOUND` An entry is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused, or the file system cannot exchange entries.
 */
export function exchangeForTest(handle: RootHandle, nameA: string, nameB: string): void;

// biome-ignore lint/complexity/noUselessEmptyExport: without it every declaration counts as exported
export {};
