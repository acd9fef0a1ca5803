// snapshot: reads every regular file beneath one directory into an object that maps paths to
// Buffers. The object has no prototype, so a file named `constructor` is an ordinary key.
//
// Lighter than capture. Directories appear only in the paths of their files. An open file or
// directory must be the object that its name led to. Symlinks, files with further hard links and
// special files are refused.
//
// Left open on purpose: changes during the call are not detected. A file may come back with old and
// new bytes mixed. A file renamed during the walk may be missing, or appear under two keys.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "confine/directory.h"
#include "confine/file_buffer.h"
#include "confine/levels.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

// A directory whose files are being read.
struct SnapshotLevel {
  Descriptor directory;
  Names names;
  size_t prefixLength;  // of the key, including the "/" after the directory
  size_t next = 0;      // the first of `names` not yet read
};

bool OpenedAsNamed(int fd, const struct stat& named, struct stat* opened) {
  return ::fstat(fd, opened) == 0 && SameIdentity(*opened, named);
}

bool AddFile(napi_env env, int dirFd, const char* name, const std::string& key,
             const struct stat& named, napi_value target) {
  const Descriptor file(::openat(dirFd, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!file.IsOpen()) return RefuseErrno(env, errno);
  struct stat opened;
  if (!OpenedAsNamed(file.Get(), named, &opened)) return Refuse(env, kOutOfRoot);
  napi_value content = nullptr;
  if (!ReadFileBuffer(env, file.Get(), opened.st_size, &content)) return false;
  napi_set_named_property(env, target, key.c_str(), content);
  // A replaced Object.create can return an object with a setter that throws.
  bool pending = false;
  napi_is_exception_pending(env, &pending);
  return !pending;
}

bool EnterDirectory(napi_env env, int dirFd, const char* name, const struct stat& named,
                    std::string* key, Levels<SnapshotLevel>* levels) {
  Descriptor directory = OpenDirectoryAt(dirFd, name);
  if (!directory.IsOpen()) return RefuseErrno(env, errno);
  struct stat opened;
  if (!OpenedAsNamed(directory.Get(), named, &opened)) return Refuse(env, kOutOfRoot);
  Names names;
  if (!ReadNames(env, directory.Get(), &names)) return false;
  *key += '/';
  levels->Push({std::move(directory), std::move(names), key->size()});
  return true;
}

bool AddOrEnter(napi_env env, int dirFd, const char* name, std::string* key, napi_value target,
                Levels<SnapshotLevel>* levels) {
  struct stat named;
  if (::fstatat(dirFd, name, &named, AT_SYMLINK_NOFOLLOW) != 0) return RefuseErrno(env, errno);
  // Required: a file without any link passes here. capture refuses it.
  if (IsLinked(named)) return Refuse(env, kOutOfRoot);
  if (S_ISDIR(named.st_mode)) return EnterDirectory(env, dirFd, name, named, key, levels);
  if (S_ISREG(named.st_mode)) return AddFile(env, dirFd, name, *key, named, target);
  return Refuse(env, kOutOfRoot);
}

// Adds all files beneath the directory to `target`. Returns false after throwing.
bool SnapshotDirectory(napi_env env, Descriptor directory, napi_value target) {
  Names names;
  if (!ReadNames(env, directory.Get(), &names)) return false;
  Levels<SnapshotLevel> levels;
  levels.Push({std::move(directory), std::move(names), 0});
  std::string key;
  while (!levels.Empty()) {
    SnapshotLevel& level = levels.Top();
    if (level.next == level.names.sorted.size()) {
      levels.Pop();
      continue;
    }
    const char* child = level.names.sorted[level.next++];
    key.resize(level.prefixLength);
    key += child;
    if (!AddOrEnter(env, level.directory.Get(), child, &key, target, &levels)) return false;
  }
  return true;
}

// Required: calls the global Object.create, also if the program has replaced it. Returns null if
// the call failed, with the exception of that call pending, if any.
napi_value CreateResult(napi_env env) {
  napi_value global = nullptr;
  napi_value object = nullptr;
  napi_value create = nullptr;
  napi_value null = nullptr;
  napi_value result = nullptr;
  napi_get_global(env, &global);
  napi_get_named_property(env, global, "Object", &object);
  napi_get_named_property(env, object, "create", &create);
  napi_get_null(env, &null);
  return napi_call_function(env, object, create, 1, &null, &result) == napi_ok ? result : nullptr;
}

}  // namespace

napi_value Snapshot(napi_env env, napi_callback_info info) {
  Target target;
  if (!OpenTarget(env, info, /*create=*/false, &target)) return nullptr;
  Descriptor directory;
  if (!OpenListed(env, target.parent.fd.Get(), target.segments.back(), &directory)) return nullptr;
  const napi_value result = CreateResult(env);
  if (result == nullptr) return nullptr;
  return SnapshotDirectory(env, std::move(directory), result) ? result : nullptr;
}

}  // namespace tarvek
