// The types of Node.js where they are installed; without them a Buffer counts as a Uint8Array.
// @ts-ignore
/// <reference types="node" />

/**
 * Synchronous file-system operations that reach only what lies beneath a directory, also while
 * other processes rename, replace or link entries in it. Linux only.
 *
 * Open a directory once with {@link openRoot}, then name what you want by arrays of names below it:
 *
 * ```js
 * const root = openRoot('/srv/app/data');
 * write(root, ['reports', 'today.json'], Buffer.from('{}'));
 * close(root);
 * ```
 *
 * Every function runs to its end on the calling thread, and either returns or throws one
 * {@link TarvekError} with one of the codes that it lists. Three kinds of exception pass through as
 * they are: what a test hook or a stage callback threw, what a getter on an argument threw, and the
 * runtime's own `ERR_BUFFER_TOO_LARGE` for a file larger than a Buffer can be. "Durable" means flushed
 * to the disk with `fsync` by the time the function returns.
 *
 * Bytes are passed as a `Uint8Array`, which every Buffer is, and are returned as a Buffer. The bytes of
 * other typed arrays are accepted too.
 */

declare const brand: unique symbol;

type Buffer = typeof globalThis extends { Buffer: { alloc(size: number): infer B } }
  ? B
  : Uint8Array;

/**
 * An open directory, from {@link openRoot} or {@link openRelative}. Opaque: it has no properties,
 * and only these functions take it. Holds one file descriptor until {@link close}; a forgotten
 * handle is closed some time after it was garbage-collected. A handle cannot be sent to another
 * thread.
 */
export interface RootHandle {
  readonly [brand]: 'RootHandle';
}

/**
 * A path below a root: one directory-entry name an element, at least one element, the last one the
 * entry meant and the others the directories on the way. No element is empty, `.` or `..`, or holds
 * `/`, `\` or NUL. None is ever followed through a symbolic link.
 *
 * @example ['reports', '2024', 'today.json']
 */
export type Segments = readonly string[];

/**
 * Why a call failed.
 *
 * - `PATH_OUT_OF_ROOT`: refused, since it would or could reach outside the root: a bad path, a
 *   symbolic link, a file with a second hard link, a wrong file type, a change made meanwhile.
 * - `NOT_FOUND`: the entry, or a directory on the way to it, is not there.
 * - `HANDLE_CLOSED`: the handle is closed, or is none. Some functions report that by another code.
 * - `OPTIMISTIC_CONFLICT`: what is on disk is not what the call was made conditional on.
 * - `CANDIDATE_CHANGED`: the file to publish is no longer the one that was verified.
 * - `FILESYSTEM_FAILURE`: the system refused or failed, or an argument is of the wrong type. A change
 *   whose flush failed is made all the same.
 */
export type ErrorCode =
  | 'PATH_OUT_OF_ROOT'
  | 'NOT_FOUND'
  | 'HANDLE_CLOSED'
  | 'OPTIMISTIC_CONFLICT'
  | 'CANDIDATE_CHANGED'
  | 'FILESYSTEM_FAILURE';

/**
 * What the functions throw: an ordinary `Error` with a `code` and a fixed message, in which no path
 * and no system error text ever stands. There is no class of this name to test with `instanceof`.
 *
 * @example if ((error as TarvekError).code === 'NOT_FOUND') return undefined;
 */
export interface TarvekError extends Error {
  readonly code: ErrorCode;
}

/** The device and inode number that tell a directory from every other on this machine. */
export interface Identity {
  dev: bigint;
  ino: bigint;
}

/** A directory, as {@link capture} found it. It has no property `body`. */
export interface DirectoryRecord {
  /** Path below the root that the handle stands for, the names joined with `/`. */
  path: string;
  type: 'directory';
  /** The nine permission bits, `0o000` to `0o777`. */
  mode: number;
}

/** A regular file, as {@link capture} found it. */
export interface FileRecord {
  /** Path below the root that the handle stands for, the names joined with `/`. */
  path: string;
  type: 'file';
  /** The nine permission bits, `0o000` to `0o777`. */
  mode: number;
  /** The whole content, in memory of the caller's own. */
  body: Buffer;
}

/** One object of {@link capture}; `type` tells which. */
export type CaptureRecord = DirectoryRecord | FileRecord;

/**
 * The files that {@link snapshot} found: path below the directory, names joined with `/`, to
 * content in memory of the caller's own. It has no prototype, so that a file named `constructor` is
 * an ordinary key: use `Object.keys`, `Object.entries`, `in` and `[path]`, since methods such as
 * `hasOwnProperty` are not there.
 */
export type SnapshotFiles = { [path: string]: Buffer } & {
  readonly [Member in keyof typeof Object.prototype]: never;
};

/**
 * The moments of one {@link write}, in their order. Up to `before-file-rename` the target holds its
 * old content; from `after-file-rename` on the new one.
 */
export type WriteStage =
  | 'after-temp-write'
  | 'after-file-sync'
  | 'before-file-rename'
  | 'after-file-rename'
  | 'after-directory-sync';

/**
 * Called in the middle of a {@link write}. What it throws ends the write and reaches the caller: at
 * the first three stages the target keeps its old content and the temporary file is removed, at the
 * last two the new content stays.
 */
export type StageCallback = (this: typeof globalThis, stage: WriteStage) => void;

/**
 * The moments at which the test hook is called.
 *
 * | point | called by | `segment` |
 * |---|---|---|
 * | `root-ancestor-open` | `openRoot`, each directory, opened and not yet checked | its name |
 * | `relative-directory-open` | `openRelative`, the same | its name |
 * | `external-create` | both, just before the handle is made | empty |
 * | `ancestor-open` | all others with segments, each directory on the way, opened, not yet checked | its name |
 * | `pre-effect` | the same, before the way is checked again and the effect begins | last name |
 * | `publish-before-validation` | `publishVerified`, before the candidate is verified | its last name |
 * | `remove-if-equals-open` | `removeIfEquals`, before the file is opened | last name |
 * | `remove-if-equals-unlink` | `removeIfEquals`, compared and not yet removed | last name |
 * | `append-leaf-open` | `append`, before the file is opened | last name |
 * | `append-write` | `append`, before the bytes are written; may return how many at most | last name |
 * | `append-data-fsync` | `append`, before the file is flushed | last name |
 * | `append-directory-fsync` | `append`, before the directory is flushed | last name |
 * | `capture-file-read` | `capture`, each file, read and not yet checked again | whole path |
 * | `capture-directory-read` | `capture`, each directory, after all that is in it | whole path |
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

/** What the test hook is called with. */
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
 * A test hook. It may do anything: change the disk, close the handle in use, call these functions
 * again. What it throws ends the operation and reaches its caller. What it returns counts at
 * `append-write` alone, where a number, taken as an unsigned 32-bit integer, limits how many bytes
 * are written, so as to force a short write; 0 fails the append before it wrote.
 */
export type TestHook = (this: typeof globalThis, event: HookEvent) => unknown;

/**
 * Opens a directory as a root. The handle then stands for this very directory, also when it is
 * renamed; the path is not looked at again.
 *
 * @param path Absolute and in its plain form: not `/` itself, no `//`, `.`, `..` or `\`, no `/` at
 *   the end, and no symbolic link in it (pass `fs.realpathSync(path)` if there may be one).
 * @returns A new handle; {@link close} it.
 * @throws `PATH_OUT_OF_ROOT` The path is not of that form, leads through a link or a file, or was
 *   changed meanwhile.
 * @throws `NOT_FOUND` A directory of the path is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: every directory of the path must be readable.
 */
export function openRoot(path: string): RootHandle;

/** The same as {@link openRoot}, under its shorter name. */
export function open(path: string): RootHandle;

/**
 * Opens a directory below a root as a root of its own. Closing either leaves the other open.
 *
 * @param segments Names the directory.
 * @returns A new handle; {@link close} it.
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or one names a link or no directory, or was replaced
 *   meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The directory, or one on the way, is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors.
 */
export function openRelative(handle: RootHandle, segments: Segments): RootHandle;

/**
 * Closes a handle. Closing it again does nothing.
 *
 * @throws `FILESYSTEM_FAILURE` The argument is no handle, or the system's close failed; the handle
 *   then still counts as open.
 */
export function close(handle: RootHandle): void;

/**
 * Tells which directory a handle stands for, as recorded when it was opened.
 *
 * @returns A new object with the directory's `dev` and `ino`, as `fs.statSync` gives them where it
 *   is asked for BigInts.
 * @throws `HANDLE_CLOSED` The handle is closed.
 */
export function rootIdentity(handle: RootHandle): Identity;

/**
 * Tells whether an entry is there, whatever its type.
 *
 * @returns `false` also when a directory on the way is missing.
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or the entry is a link or a file with a second hard
 *   link; or a directory on the way is a link or no directory, or was replaced meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors.
 */
export function exists(handle: RootHandle, segments: Segments): boolean;

/**
 * Lists the names in a directory: of every entry, whatever its type, temporary files that a crash
 * left behind included.
 *
 * @param segments Names the directory; the root's own cannot be named.
 * @returns A new array, ascending by the bytes of the names. Bytes that are not UTF-8 appear as
 *   U+FFFD, and such a name leads to nothing when passed back.
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or one names a link or no directory, or was replaced
 *   meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The directory, or one on the way, is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory.
 */
export function list(handle: RootHandle, segments: Segments): string[];

/**
 * Reads files and whole directories into memory, and fails if anything in them changes meanwhile.
 *
 * @param paths At least one; each names a file or a directory, taken with all that is beneath it.
 * @returns A new array with a record for every directory and every file: the paths in their order,
 *   a directory before what is in it, names ascending by their bytes.
 * @throws `PATH_OUT_OF_ROOT` Bad paths or a closed handle; or, as the message says, anything met is
 *   a link, a file with a second hard link or neither file nor directory, is a file met before, or
 *   changed; or a directory on the way is a link or no directory, or was replaced meanwhile.
 * @throws `NOT_FOUND` A path, or a directory on the way, is missing; or an entry vanished
 *   meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory.
 */
export function capture(handle: RootHandle, paths: readonly Segments[]): CaptureRecord[];

/**
 * Reads every file beneath a directory into memory. Lighter than {@link capture}: that files and
 * directories change meanwhile goes unnoticed.
 *
 * @param segments Names the directory.
 * @returns A new object without a prototype, path below the directory to content.
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or one names a link or no directory, or was replaced
 *   meanwhile; or anything beneath is a link, a file with a second hard link or neither file nor
 *   directory, or was replaced meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The directory, or one on the way, is missing; or an entry vanished meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory.
 */
export function snapshot(handle: RootHandle, segments: Segments): SnapshotFiles;

/**
 * Reads a regular file.
 *
 * @returns A new Buffer with the content, of the length that the file had when it was opened.
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or it is a link, has a second hard link or is no regular
 *   file; or a directory on the way is a link or no directory, or was replaced meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The file, or a directory on the way, is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, memory.
 */
export function read(handle: RootHandle, segments: Segments): Buffer;

/**
 * Replaces a file atomically, or makes it: readers see the old content or the new, never a mixture.
 * Missing directories are made, with mode 0700. The file's mode becomes 0600, and its owner this
 * process's, whatever they were. Both modes are before the umask.
 *
 * Durable: the content, the name, and every directory made.
 *
 * @param body Read during the call only.
 * @param stage Called at the five moments of {@link WriteStage}. Leave it out for none: passing
 *   `undefined` is an error.
 * @throws `PATH_OUT_OF_ROOT` Bad segments or a closed handle; or the target is a link, has a second
 *   hard link or is no regular file; or a directory on the way is a link or no directory, or was
 *   replaced meanwhile.
 * @throws `NOT_FOUND` The directory or the temporary file vanished meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush; or `body` is
 *   no Uint8Array or changed its memory meanwhile, or `stage` is no function. The target keeps its old
 *   content, unless it was the flush of the directory, the last step, that failed.
 */
export function write(
  handle: RootHandle,
  segments: Segments,
  body: Uint8Array,
  ...stage: [] | [stage: StageCallback]
): void;

/**
 * Makes a file that must not exist yet. Missing directories are made, with mode 0700, the file with
 * mode 0600, before the umask.
 *
 * Durable: the content, the name, and every directory made. The file is written in place, and one
 * that could not be written whole stays for the caller to judge.
 *
 * @param body Read during the call only.
 * @param stage Checked, for likeness with {@link write}, and never called.
 * @throws `OPTIMISTIC_CONFLICT` An entry of that name exists.
 * @throws `PATH_OUT_OF_ROOT` Bad segments or a closed handle; or the entry is a link or a file with
 *   a second hard link; or a directory on the way is a link or no directory, or was replaced
 *   meanwhile.
 * @throws `NOT_FOUND` The directory vanished meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush; or `body` is
 *   no Uint8Array or changed its memory meanwhile, or `stage` is no function.
 */
export function create(
  handle: RootHandle,
  segments: Segments,
  body: Uint8Array,
  ...stage: [] | [stage: StageCallback]
): void;

/**
 * Adds bytes to the end of a file if it has not shrunk below what the caller knows of it. A missing
 * file, for which both sizes must be 0, is made with mode 0600 in directories made with mode 0700,
 * before the umask. Others may append meanwhile: a file that is longer than stated is accepted.
 *
 * Durable: the bytes, the name, and every directory made.
 *
 * Both sizes are taken as whole numbers: a fraction is cut off, and `NaN` and infinity count as 0.
 *
 * @param expectedSize Bytes, not below `minimumSize`: the file must be at least this long.
 * @param minimumSize Bytes, not negative: the file must be at least this long, too.
 * @param body Read during the call only; one call writes at most 2 GiB - 4 KiB.
 * @throws `OPTIMISTIC_CONFLICT` The file is shorter than a size. One that was missing now is empty.
 * @throws `PATH_OUT_OF_ROOT` The file is a link, has a second hard link or is no regular file; or
 *   it, or a directory on the way, was replaced meanwhile; or such a directory is a link or none.
 * @throws `NOT_FOUND` The file or its directory vanished meanwhile.
 * @throws `FILESYSTEM_FAILURE` Any argument is bad, a closed handle included, or `body` changed its
 *   memory meanwhile; or the system refused: permission, space, a failed flush. The file may then
 *   end in a part of `body`.
 */
export function append(
  handle: RootHandle,
  segments: Segments,
  expectedSize: number,
  minimumSize: number,
  body: Uint8Array,
): void;

/**
 * Makes a directory and every missing one on the way, with mode 0700 before the umask. One that
 * exists is taken as it is.
 *
 * Durable: every directory made; nothing is flushed for those that existed.
 *
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or one names a link or no directory, or was replaced
 *   meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` A directory on the way vanished meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush; or somebody
 *   else made the directory at the same moment, and the next call finds it.
 */
export function ensureDirectory(handle: RootHandle, segments: Segments): void;

/**
 * Makes a symbolic link to a directory below the same root, with a relative text that climbs from
 * the link to the root and goes down from there. Missing directories on the way to the link are
 * made, with mode 0700 before the umask. Nothing is ever replaced.
 *
 * Durable: the link and every directory made.
 *
 * @param link Names the link.
 * @param target Names the directory that it points at.
 * @returns `true` if this call made the link, `false` if exactly this link was there.
 * @throws `OPTIMISTIC_CONFLICT` Something else is in the link's place.
 * @throws `PATH_OUT_OF_ROOT` Bad segments or a closed handle; or the target, or a directory on the
 *   way to it or to the link, is a link or no directory, or was replaced meanwhile.
 * @throws `NOT_FOUND` The target, or a directory on the way to it, is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush.
 */
export function ensureRelativeSymlink(
  handle: RootHandle,
  link: Segments,
  target: Segments,
): boolean;

/**
 * Removes a file, or a directory with all that is beneath it. There is no roll-back: what was
 * removed before a refusal or failure stays removed.
 *
 * Durable: the removal.
 *
 * @throws `PATH_OUT_OF_ROOT` Bad segments; or the entry, or anything beneath it, is a link or a
 *   file with a second hard link; or a directory on the way is a link or no directory, or was
 *   replaced meanwhile.
 * @throws `HANDLE_CLOSED` The handle is closed.
 * @throws `NOT_FOUND` The entry, or a directory on the way, is missing; or something vanished
 *   meanwhile.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, descriptors, a failed flush, or a
 *   directory that is a mount point or filled again meanwhile.
 */
export function remove(handle: RootHandle, segments: Segments): void;

/**
 * Removes a regular file if its whole content is what the caller expects, and nothing about it
 * changes while that is found out.
 *
 * Durable: the removal.
 *
 * @param expected The whole content; read during the call only.
 * @throws `OPTIMISTIC_CONFLICT` The content differs, or the file changed meanwhile. It stays.
 * @throws `PATH_OUT_OF_ROOT` It is a link, has a second hard link or is no regular file; or a
 *   directory on the way is a link or no directory, or was replaced meanwhile.
 * @throws `NOT_FOUND` The file, or a directory on the way, is missing.
 * @throws `FILESYSTEM_FAILURE` Any argument is bad, a closed handle included, or `expected` changed
 *   its memory meanwhile; or the system refused: permission, a failed flush.
 */
export function removeIfEquals(handle: RootHandle, segments: Segments, expected: Uint8Array): void;

/**
 * Renames a file or a directory within a root. Missing directories on the way to the new place are
 * made, with mode 0700 before the umask, and stay if the move then fails. The new place must be
 * free when it is looked at; what appears there between the look and the rename can be replaced.
 *
 * Durable: the new name, the old one's absence, and every directory made.
 *
 * @throws `OPTIMISTIC_CONFLICT` An entry is in the new place.
 * @throws `PATH_OUT_OF_ROOT` Bad segments or a closed handle; or either entry is a link or a file
 *   with a second hard link; or a directory on either way is a link or no directory, or was
 *   replaced meanwhile.
 * @throws `NOT_FOUND` The entry to move, or a directory on the way to it, is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused: permission, space, a failed flush, another file
 *   system, a directory into itself.
 */
export function move(handle: RootHandle, from: Segments, to: Segments): void;

/**
 * Gives a file its final name if it still is exactly what the caller verified: the file behind a
 * descriptor that the caller holds, under its only name, with the expected content. Never replaces
 * an entry. Missing directories on the way to the new name are made, with mode 0700 before the
 * umask. A crash can leave the file under both names.
 *
 * Durable: the new name, the old one's absence, and every directory made; not the content, which
 * the caller flushes or makes with {@link create} or {@link write}.
 *
 * @param candidateFd A descriptor opened read-only on the candidate. Borrowed: it stays open, and
 *   its position is not moved. Taken as a 32-bit integer: a fraction is cut off, larger numbers wrap
 *   around, and `NaN` and infinity count as 0.
 * @param candidate Names the file.
 * @param destination Its final name.
 * @param expected The whole content; read during the call only.
 * @throws `CANDIDATE_CHANGED` The candidate is missing or is not the verified file, or the
 *   descriptor is not read-only.
 * @throws `OPTIMISTIC_CONFLICT` An entry has the final name; the candidate stays.
 * @throws `PATH_OUT_OF_ROOT` Any argument is bad, a closed handle included; or a directory on
 *   either way is a link or no directory, or was replaced meanwhile.
 * @throws `NOT_FOUND` A directory on the way to the candidate is missing, or a name vanished
 *   meanwhile.
 * @throws `FILESYSTEM_FAILURE` `expected` changed its memory meanwhile; or the system refused:
 *   permission, space, another file system, a failed flush. The candidate keeps its name and has no
 *   other, unless it was a flush, the last step, that failed.
 */
export function publishVerified(
  handle: RootHandle,
  candidateFd: number,
  candidate: Segments,
  destination: Segments,
  expected: Uint8Array,
): void;

/**
 * For tests: installs the callback that every function calls at its {@link HookPoint}s, or removes
 * it. There is one for each JavaScript thread, and it stays until it is replaced or removed.
 *
 * @param hook Left out, `undefined` or `null`: no hook.
 * @throws `FILESYSTEM_FAILURE` The argument is anything else; no hook is installed then.
 */
export function setTestHook(hook?: TestHook | null): void;

/**
 * For tests: swaps two entries of the root's own directory in one step, of whatever type they are.
 * Makes none of the other functions' checks and flushes nothing.
 *
 * @param nameA The name of one entry, not a path.
 * @param nameB The name of the other.
 * @throws `PATH_OUT_OF_ROOT` A bad name or a closed handle.
 * @throws `NOT_FOUND` An entry is missing.
 * @throws `FILESYSTEM_FAILURE` The system refused, or the file system cannot exchange.
 */
export function exchangeForTest(handle: RootHandle, nameA: string, nameB: string): void;

// biome-ignore lint/complexity/noUselessEmptyExport: without it every declaration counts as exported
export {};
