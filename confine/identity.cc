#include "confine/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "addon/error.h"
#include "confine/descriptor.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

constexpr size_t kCompareChunk = 65536;

bool SameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool NamesDirectory(int dirFd, const std::string& name, const Identity& identity) {
  struct stat named;
  return ::fstatat(dirFd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISDIR(named.st_mode) && IdentityOf(named) == identity;
}

}  // namespace

bool SameStableMetadata(const struct stat& a, const struct stat& b) {
  return SameIdentity(a, b) && a.st_mode == b.st_mode && a.st_nlink == b.st_nlink &&
         a.st_size == b.st_size && SameTime(a.st_mtim, b.st_mtim) && SameTime(a.st_ctim, b.st_ctim);
}

bool ValidateChain(int rootFd, std::span<const std::string> names,
                   std::span<const Identity> identities) {
  Descriptor current(::dup(rootFd));
  if (!current.IsOpen()) return false;
  for (size_t index = 0; index < names.size(); ++index) {
    if (!NamesDirectory(current.Get(), names[index], identities[index])) return false;
    Descriptor next = OpenDirectoryAt(current.Get(), names[index].c_str());
    if (!next.IsOpen()) return false;
    current = std::move(next);
  }
  return true;
}

bool ReadExactAt(int fd, const Bytes& expected) {
  std::array<uint8_t, kCompareChunk> chunk;
  size_t offset = 0;
  while (offset < expected.length) {
    const size_t wanted = std::min(chunk.size(), expected.length - offset);
    const ssize_t count = ReadSomeAt(fd, chunk.data(), wanted, static_cast<off_t>(offset));
    if (count <= 0) return false;
    const auto length = static_cast<size_t>(count);
    if (std::memcmp(chunk.data(), expected.data + offset, length) != 0) return false;
    offset += length;
  }
  return ReadSomeAt(fd, chunk.data(), 1, static_cast<off_t>(offset)) == 0;
}

bool SafeLeafStat(napi_env env, int dirFd, const std::string& name, struct stat* out,
                  bool allowMissing) {
  if (::fstatat(dirFd, name.c_str(), out, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT || !allowMissing) return RefuseErrno(env, errno);
    out->st_mode = 0;
    return true;
  }
  return !IsLinked(*out) || Refuse(env, kOutOfRoot);
}

}  // namespace tarvek
