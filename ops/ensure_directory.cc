// ensureDirectory: creates a directory and its missing parent directories. Accepts an existing
// directory as it is, and flushes nothing for it.
//
// Left open on purpose: if another process creates the directory between the look and the mkdir,
// the call fails. The caller can retry. A second look here would hide the race.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "confine/parent.h"

namespace tarvek {

napi_value EnsureDirectory(napi_env env, napi_callback_info info) {
  Target target;
  if (!OpenTarget(env, info, /*create=*/true, &target)) return nullptr;
  const int dirFd = target.parent.fd.Get();
  const char* leaf = target.segments.back().c_str();

  struct stat status;
  if (::fstatat(dirFd, leaf, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISDIR(status.st_mode) ? Undefined(env) : Throw(env, kOutOfRoot);
  }
  if (errno != ENOENT) return FailErrno(env, errno);
  if (::mkdirat(dirFd, leaf, kNewDirectoryMode) != 0) return FailErrno(env, errno);
  if (::fsync(dirFd) != 0) return FailErrno(env, errno);
  return Undefined(env);
}

}  // namespace tarvek
