// read: returns the content of a regular file, up to its size when it was opened. The open file
// must be the one that the name led to before. A file truncated meanwhile yields a shorter Buffer.
//
// Left open on purpose: the bytes can change while they are read. capture detects that.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "addon/error.h"
#include "addon/operations.h"
#include "confine/file_buffer.h"
#include "confine/parent.h"

namespace tarvek {

napi_value Read(napi_env env, napi_callback_info info) {
  Target target;
  if (!OpenTarget(env, info, /*create=*/false, &target)) return nullptr;
  const int dirFd = target.parent.fd.Get();
  const std::string& leaf = target.segments.back();

  struct stat named;
  if (!SafeLeafStat(env, dirFd, leaf, &named, /*allowMissing=*/false)) return nullptr;
  if (!S_ISREG(named.st_mode)) return Throw(env, kOutOfRoot);

  // Without O_NONBLOCK, a FIFO that takes the file's place would block here.
  const Descriptor file(
      ::openat(dirFd, leaf.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!file.IsOpen()) return FailErrno(env, errno);
  struct stat opened;
  if (::fstat(file.Get(), &opened) != 0) return FailErrno(env, errno);
  if (!S_ISREG(opened.st_mode) || IsLinked(opened) || !SameIdentity(opened, named)) {
    return Throw(env, kOutOfRoot);
  }

  napi_value content = nullptr;
  return ReadFileBuffer(env, file.Get(), opened.st_size, &content) ? content : nullptr;
}

}  // namespace tarvek
