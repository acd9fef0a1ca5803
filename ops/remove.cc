// remove: deletes a file, or a directory and everything beneath it. Refuses symlinks and files with
// further hard links at every level. What was deleted before a refusal stays deleted.
//
// A directory is emptied in the order in which the system lists it, flushed and removed. The parent
// of the top entry is flushed at the end.
//
// Left open on purpose: a directory is not compared with the look before it was opened. Each
// directory is opened without following symlinks, which keeps the walk beneath the root.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "confine/directory.h"
#include "confine/levels.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

// A directory being emptied. `name` is the leaf, or points into the stream of the level above,
// which is not read further before this level is gone.
struct EmptyingLevel {
  int containingFd;  // the directory that `name` is in
  const char* name;
  Descriptor directory;
  DirectoryStream stream;
};

bool EnterDirectory(napi_env env, int dirFd, const char* name, Levels<EmptyingLevel>* levels) {
  Descriptor directory = OpenDirectoryAt(dirFd, name);
  if (!directory.IsOpen()) return RefuseErrno(env, errno);
  DirectoryStream stream = OpenStream(directory.Get());
  if (stream == nullptr) return RefuseErrno(env, errno);
  levels->Push({dirFd, name, std::move(directory), std::move(stream)});
  return true;
}

// Unlinks the entry, or pushes a new level if it is a directory.
bool UnlinkOrEnter(napi_env env, int dirFd, const char* name, Levels<EmptyingLevel>* levels) {
  struct stat status;
  if (::fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return RefuseErrno(env, errno);
  if (IsLinked(status)) return Refuse(env, kOutOfRoot);
  if (S_ISDIR(status.st_mode)) return EnterDirectory(env, dirFd, name, levels);
  if (::unlinkat(dirFd, name, 0) != 0) return RefuseErrno(env, errno);
  return true;
}

// Call at the end of the level's stream, while errno is that of the last read.
bool RemoveEmptied(napi_env env, EmptyingLevel* level) {
  const int readError = errno;
  level->stream.reset();
  if (readError != 0) return RefuseErrno(env, readError);
  if (::fsync(level->directory.Get()) != 0 ||
      ::unlinkat(level->containingFd, level->name, AT_REMOVEDIR) != 0) {
    return RefuseErrno(env, errno);
  }
  return true;
}

bool RemoveEntry(napi_env env, int dirFd, const char* name) {
  Levels<EmptyingLevel> levels;
  if (!UnlinkOrEnter(env, dirFd, name, &levels)) return false;
  while (!levels.Empty()) {
    EmptyingLevel& level = levels.Top();
    if (const char* child = NextName(level.stream.get())) {
      if (!UnlinkOrEnter(env, level.directory.Get(), child, &levels)) return false;
    } else {
      if (!RemoveEmptied(env, &level)) return false;
      levels.Pop();
    }
  }
  return true;
}

}  // namespace

napi_value Remove(napi_env env, napi_callback_info info) {
  Target target;
  if (!OpenTarget(env, info, /*create=*/false, &target)) return nullptr;
  if (!RemoveEntry(env, target.parent.fd.Get(), target.segments.back().c_str())) return nullptr;
  if (::fsync(target.parent.fd.Get()) != 0) return FailErrno(env, errno);
  return Undefined(env);
}

}  // namespace tarvek
