#include "confine/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "addon/error.h"
#include "addon/hook.h"

namespace tarvek {

namespace {

// Returns an empty descriptor with errno set. A directory that another process creates meanwhile is
// used as well, but `made` stays false: its creator must flush it.
Descriptor OpenOrMake(int dirFd, const char* name, bool create, bool* made) {
  Descriptor opened = OpenDirectoryAt(dirFd, name);
  if (opened.IsOpen() || errno != ENOENT || !create) return opened;
  *made = ::mkdirat(dirFd, name, kNewDirectoryMode) == 0;
  if (!*made && errno != EEXIST) return opened;
  return OpenDirectoryAt(dirFd, name);
}

// Fires the hook between the open and the second look, when another process could replace the
// directory.
bool ConfirmOpened(napi_env env, const char* point, int dirFd, const std::string& name,
                   uint32_t index, const Descriptor& directory, Identity* identity) {
  struct stat opened;
  struct stat named;
  const bool same = ::fstat(directory.Get(), &opened) == 0 && Hook(env, point, name, index) &&
                    ::fstatat(dirFd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISDIR(named.st_mode) && SameIdentity(opened, named);
  if (!same) return Refuse(env, kOutOfRoot);
  *identity = IdentityOf(opened);
  return true;
}

bool IsSelfOrParent(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// A name with a number made of the first bytes after the prefix that all names share. The number
// settles nearly every comparison without reading the names.
struct KeyedName {
  uint64_t key;
  const char* name;
};

// The length of the prefix that all names share. The NUL of a shorter name ends the comparison.
size_t SharedPrefix(const std::vector<const char*>& names) {
  size_t length = names.empty() ? 0 : std::strlen(names.front());
  for (const char* name : names) {
    const char* const first = names.front();
    length = static_cast<size_t>(std::mismatch(first, first + length, name).first - first);
  }
  return length;
}

// Big-endian, so that numbers compare as the bytes do. Padded with zeros.
uint64_t FirstBytes(const char* name) {
  uint64_t bytes = 0;
  for (int shift = 56; shift >= 0 && *name != '\0'; shift -= 8) {
    bytes |= uint64_t{static_cast<uint8_t>(*name++)} << shift;
  }
  return bytes;
}

// strcmp compares unsigned bytes and puts a prefix first, in every locale.
bool IsBefore(const KeyedName& a, const KeyedName& b) {
  if (a.key != b.key) return a.key < b.key;
  return std::strcmp(a.name, b.name) < 0;
}

void SortNames(std::vector<const char*>* names) {
  const size_t shared = SharedPrefix(*names);
  std::vector<KeyedName> keyed;
  keyed.reserve(names->size());
  for (const char* name : *names) keyed.push_back({FirstBytes(name + shared), name});
  std::sort(keyed.begin(), keyed.end(), IsBefore);
  std::transform(keyed.begin(), keyed.end(), names->begin(),
                 [](const KeyedName& entry) { return entry.name; });
}

}  // namespace

bool WalkDirectories(napi_env env, const Walk& walk, std::span<const std::string> names,
                     Descriptor* current, std::vector<Identity>* identities, bool* missing) {
  identities->reserve(names.size());
  for (uint32_t index = 0; index < names.size(); ++index) {
    const std::string& name = names[index];
    bool made = false;
    Descriptor next = OpenOrMake(current->Get(), name.c_str(), walk.create, &made);
    if (!next.IsOpen()) {
      if (missing == nullptr || errno != ENOENT) return RefuseErrno(env, errno);
      *missing = true;
      return true;
    }
    Identity identity;
    if (!ConfirmOpened(env, walk.point, current->Get(), name, index, next, &identity)) return false;
    identities->push_back(identity);
    // A new directory must be durable before anything is created in it.
    if (made && ::fsync(current->Get()) != 0) return RefuseErrno(env, errno);
    *current = std::move(next);
  }
  return true;
}

bool OpenListed(napi_env env, int dirFd, const std::string& name, Descriptor* directory) {
  Descriptor opened = OpenDirectoryAt(dirFd, name.c_str());
  if (!opened.IsOpen()) return RefuseErrno(env, errno);
  struct stat status;
  struct stat named;
  const bool same = ::fstat(opened.Get(), &status) == 0 &&
                    ::fstatat(dirFd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                    !S_ISLNK(named.st_mode) && SameIdentity(status, named);
  if (!same) return Refuse(env, kOutOfRoot);
  *directory = std::move(opened);
  return true;
}

DirectoryStream OpenStream(int dirFd) { return DirectoryStream(::fdopendir(::dup(dirFd))); }

const char* NextName(DIR* stream) {
  for (;;) {
    errno = 0;
    const struct dirent* entry = ::readdir(stream);
    if (entry == nullptr) return nullptr;
    if (!IsSelfOrParent(entry->d_name)) return entry->d_name;
  }
}

bool ReadNames(napi_env env, int dirFd, Names* names) {
  DirectoryStream stream = OpenStream(dirFd);
  if (stream == nullptr) return RefuseErrno(env, errno);
  size_t count = 0;
  while (const char* name = NextName(stream.get())) {
    names->block.insert(names->block.end(), name, name + std::strlen(name) + 1);
    ++count;
  }
  const int readError = errno;
  stream.reset();
  if (readError != 0) return RefuseErrno(env, readError);

  names->sorted.reserve(count);
  const char* name = names->block.data();
  for (size_t index = 0; index < count; ++index, name += std::strlen(name) + 1) {
    names->sorted.push_back(name);
  }
  SortNames(&names->sorted);
  return true;
}

}  // namespace tarvek
