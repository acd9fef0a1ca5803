// A hostile process: puts what leads out of a root in the place of what is beneath it, and back, as
// fast as it can. Runs in the root:
//
//   attacker [KIND DIRECTORY NAME TARGET]...
//
// NAME is in DIRECTORY beneath the root, TARGET an absolute path outside. KIND tells what takes the
// name's place:
//   s  a symbolic link to TARGET, by exchange    r  the same by renames, with gaps
//   h  a hard link of TARGET, by exchange        x  TARGET itself, by exchange
//   l  nothing: the file there gets TARGET as a second name
// A round takes one of the list at random and puts everything back; decoys, and what the victim put
// in the way, go to aside/. It stops between rounds, on SIGTERM or when its parent is gone, and
// prints how often it swapped and how often a file grew while it had a second name.

#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/openat2.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { kReplace = 0, kExchange = 2 };  // flags of renameat2

static unsigned long swaps, grown;
static volatile sig_atomic_t stopped;

static void Stop(int number) { stopped = number; }

// For times of all magnitudes up to some ten microseconds, as the windows of a victim are.
static void Rest(void) {
  for (volatile int left = 1 << rand() % 14; left > 0; --left) continue;
}

static int Swap(int dirA, const char* a, int dirB, const char* b, int flags) {
  const int done = syscall(SYS_renameat2, dirA, a, dirB, b, flags) == 0;
  swaps += (unsigned)done;
  return done;
}

// The victim may have taken the decoy away.
static void ByExchange(int dir, const char* name, const char* decoy) {
  if (!Swap(dir, name, AT_FDCWD, decoy, kExchange)) return;
  Rest();
  if (!Swap(dir, name, AT_FDCWD, decoy, kExchange)) Swap(AT_FDCWD, decoy, dir, name, kReplace);
}

// The victim may have made something in a gap.
static void ByRename(int dir, const char* name, const char* decoy, const char* away) {
  const int moved = Swap(dir, name, AT_FDCWD, away, kReplace);
  Rest();
  if (Swap(AT_FDCWD, decoy, dir, name, kReplace)) {
    Rest();
    Swap(dir, name, AT_FDCWD, decoy, kReplace);
  }
  Rest();
  if (!moved || Swap(AT_FDCWD, away, dir, name, kReplace)) return;
  Swap(AT_FDCWD, away, dir, name, kExchange);
}

static void ByLink(int dir, const char* name, const char* target) {
  struct stat before, after;
  if (linkat(dir, name, AT_FDCWD, target, 0) != 0 || stat(target, &before) != 0) return;
  Rest();
  grown += stat(target, &after) == 0 && after.st_size > before.st_size;
  swaps += unlink(target) == 0;
}

static void Round(char kind, const char* directory, const char* name, const char* target) {
  static unsigned long serial;
  char decoy[32], away[32];
  snprintf(decoy, sizeof decoy, "aside/%lu.decoy", ++serial);
  snprintf(away, sizeof away, "aside/%lu.away", serial);
  // Through no link: an attacker that walks into its own trap would forge an escape.
  struct open_how how = {.flags = O_PATH | O_DIRECTORY, .resolve = RESOLVE_NO_SYMLINKS};
  const int dir = (int)syscall(SYS_openat2, AT_FDCWD, directory, &how, sizeof how);
  if (kind == 'x') ByExchange(dir, name, target);
  if (kind == 'l') ByLink(dir, name, target);
  if (kind == 'h' && link(target, decoy) == 0) ByExchange(dir, name, decoy);
  if (kind == 's' && symlink(target, decoy) == 0) ByExchange(dir, name, decoy);
  if (kind == 'r' && symlink(target, decoy) == 0) ByRename(dir, name, decoy, away);
  // A victim that was caught between linking and unlinking refuses what has two names from then on.
  struct stat left;
  const int found = kind != 'l' && fstatat(dir, name, &left, AT_SYMLINK_NOFOLLOW) == 0;
  if (found && S_ISREG(left.st_mode) && left.st_nlink > 1) unlinkat(dir, name, 0);
  // Directories stay.
  unlink(decoy);
  unlink(away);
  close(dir);
}

int main(int argc, char** argv) {
  const pid_t parent = getppid();
  signal(SIGTERM, Stop);
  puts("ready");
  fflush(stdout);
  while (!stopped && getppid() == parent) {
    char** words = argv + 1 + 4 * (rand() % (argc / 4));
    Round(words[0][0], words[1], words[2], words[3]);
    Rest();
  }
  printf("%lu %lu\n", swaps, grown);
}
