import type { ErrorCode, FileRecord, Segments } from '..';

/**
 * Why was a call refused? An error of tarvek contains no path. {@link check} finds the entries that
 * make calls fail.
 *
 * It only reads, follows no symlink below the directory, and does not load the native module. Run
 * it as the user whose program failed. It shows the present state, so it cannot find a race.
 */

type Buffer = FileRecord['body'];

/**
 * What is wrong with an entry, and the code of a call that meets it.
 *
 * - `symlink`: `PATH_OUT_OF_ROOT`.
 * - `hard-link`: a file with two or more hard links. `PATH_OUT_OF_ROOT`.
 * - `fifo`, `socket`, `device`: `PATH_OUT_OF_ROOT` from calls that read or write the entry. It can
 *   be moved and removed.
 * - `unreadable`: a file that this process may not read; a directory that it may not read and
 *   search; or another error of the system. `FILESYSTEM_FAILURE` from calls that read the file or
 *   enter the directory.
 * - `too-large`: a file larger than a Buffer or than the memory of this machine.
 *   `FILESYSTEM_FAILURE` from calls that read it.
 * - `bad-name`: a name that no call accepts, because it contains a backslash, or because a path
 *   passed to {@link check} contains it. `PATH_OUT_OF_ROOT`.
 * - `not-utf8`: a name that is not UTF-8. No string names it: `NOT_FOUND`. Deno does not show such
 *   entries.
 * - `mount-point`: `FILESYSTEM_FAILURE` from calls that remove or replace the entry, or move
 *   something across it.
 * - `missing`: `NOT_FOUND`. Only for an entry on the way to a path, and for that path.
 * - `not-a-directory`: a file or special file on the way. `PATH_OUT_OF_ROOT`.
 * - `changed`: another process replaced the entry during the check. `PATH_OUT_OF_ROOT` from a call
 *   that meets such a race.
 * - `leftover`: a temporary file of a `write` that runs or crashed. No call fails, so `code` is
 *   `null`.
 */
export type ObstacleKind =
  | 'symlink'
  | 'hard-link'
  | 'fifo'
  | 'socket'
  | 'device'
  | 'unreadable'
  | 'too-large'
  | 'bad-name'
  | 'not-utf8'
  | 'mount-point'
  | 'missing'
  | 'not-a-directory'
  | 'changed'
  | 'leftover';

/** One thing that is wrong with one entry. An entry can have several. */
export interface Obstacle {
  /**
   * The names below the directory, joined with `/`. For the directory itself and those above it,
   * the absolute path. Bytes that are not UTF-8 are shown as U+FFFD. The path can contain control
   * characters: use {@link format} to print it.
   */
  path: string;
  kind: ObstacleKind;
  /** The code that a call throws, or `null` if no call fails. */
  code: ErrorCode | null;
  /** What is wrong, in words. The words can change from version to version. */
  why: string;
  /** The exact bytes of `path`. Only there if `path` is not UTF-8. */
  bytes?: Buffer;
}

/**
 * Finds what makes calls fail in a directory. Looks at everything in it, or at what the paths lead
 * to, the way there and what is below. A directory comes before its entries, and names come in the
 * order of their bytes.
 *
 * The search goes on while the result is iterated. Until the last entry it holds one descriptor for
 * each level of directories. `for`…`of`, spreading and `Array.from` release them, also after a
 * `break`.
 *
 * ```js
 * for (const found of check('/srv/app/data', ['reports', 'today.json'])) {
 *   console.log(format(found));
 * }
 * ```
 *
 * @param directory What the program passes to `openRoot`. May be relative here. A symlink in its
 *   path is reported and followed.
 * @param paths As passed to the call that failed. None: everything in the directory.
 * @throws `TypeError` The directory is not a string or is empty, or a path is not an array with at
 *   least one name.
 * @throws `Error` While the result is iterated, because this process cannot read `/proc` or open `/`.
 */
export function check(
  directory: string,
  ...paths: Segments[]
): Generator<Obstacle, void, undefined>;

/**
 * An obstacle as one line of text, which is safe to print in a terminal: invisible characters of
 * the path are escaped.
 *
 * @example 'reports/2024: symlink (PATH_OUT_OF_ROOT)'
 */
export function format(obstacle: Obstacle): string;

// biome-ignore lint/complexity/noUselessEmptyExport: without it every declaration counts as exported
export {};
