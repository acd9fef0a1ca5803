// The checks that tell whether something on disk still is what it was. They compare what the kernel
// says of an object (device and inode, and where content matters its times, size and links) and
// never trust a name that was looked at earlier.
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

  // Inode numbers repeat from one file system, or subvolume, to the next.
  bool operator==(const Identity&) const = default;
};

inline Identity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

inline bool SameIdentity(const struct stat& a, const struct stat& b) {
  return IdentityOf(a) == IdentityOf(b);
}

// A regular file under its only name.
inline bool IsSoleFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1;
}

// What no operation may act on, since it stands for something that may lie outside the root: a
// symbolic link, or a regular file that another name leads to as well.
inline bool IsLinked(const struct stat& status) {
  return S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink >= 2);
}

// Identity, mode, link count, size, modification and status-change time. Ownership and access time
// are left out on purpose: reading a file must not count as changing it.
bool SameStableMetadata(const struct stat& a, const struct stat& b);

// Whether walking `names` from `rootFd` reaches, at every step, the directory whose identity was
// recorded. Walks by name from the root, so it proves what the path means at this moment rather
// than what the operation holds open. Throws nothing; `names` and `identities` run in parallel.
bool ValidateChain(int rootFd, std::span<const std::string> names,
                   std::span<const Identity> identities);

// Whether the file holds exactly `expected` and ends there. Reads by position, so that a borrowed
// descriptor's offset stays where its owner left it, through one fixed buffer. Throws nothing.
bool ReadExactAt(int fd, const Bytes& expected);

// Looks at a leaf by name and refuses one that IsLinked. Every other type passes; whether it suits
// is the caller's question. False: it has thrown. With `allowMissing` an absent leaf passes with
// st_mode 0.
bool SafeLeafStat(napi_env env, int dirFd, const std::string& name, struct stat* out,
                  bool allowMissing);

}  // namespace tarvek
