// Checks that an object on disk is still the same. They compare what the kernel reports: device and
// inode, and where content matters also times, size and link count. An earlier look at a name
// proves nothing by itself, so each check asks the kernel again.
#pragma once

#include <node_api.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "addon/arguments.h"

namespace tarvek {

struct Identity {
  uint64_t dev = 0;
  uint64_t ino = 0;

  // Compares both, because inode numbers are unique only within one file system or subvolume.
  bool operator==(const Identity&) const = default;
};

inline Identity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

inline bool SameIdentity(const struct stat& a, const struct stat& b) {
  return IdentityOf(a) == IdentityOf(b);
}

// A regular file with exactly one link.
inline bool IsSoleFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1;
}

// A symlink, or a regular file with further hard links. No operation may act on either, because it
// can be an alias of something outside the root.
inline bool IsLinked(const struct stat& status) {
  return S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink >= 2);
}

// Compares identity, mode, link count, size, modification time and status-change time. Leaves out
// the access time, because reading a file must not count as changing it, and the ownership: a
// change of owner shows in the status-change time.
bool SameStableMetadata(const struct stat& a, const struct stat& b);

// Whether a walk of `names` from `rootFd` reaches the directory with the recorded identity at every
// step. It walks by name from the root, so it proves where the path leads now, not what the
// operation holds open. Does not throw. `names` and `identities` run in parallel.
bool ValidateChain(int rootFd, std::span<const std::string> names,
                   std::span<const Identity> identities);

// Whether the file holds exactly the bytes `expected` and nothing after them. Uses one fixed buffer
// and positioned reads: the offset of a borrowed descriptor must not move. Does not throw.
bool ReadExactAt(int fd, const Bytes& expected);

// Stats a leaf by name and refuses it if IsLinked. All other types pass, and the caller decides.
// With `allowMissing`, an absent leaf passes with st_mode 0. Returns false after throwing.
bool SafeLeafStat(napi_env env, int dirFd, const std::string& name, struct stat* out,
                  bool allowMissing);

}  // namespace tarvek
