// read: the whole content of a regular file. The descriptor read from is proved to be the file that
// was looked at. The size is taken once: bytes appended later are not returned, and a file cut
// short meanwhile yields a shorter Buffer. That the bytes did not change while they were read is
// not promised; capture is for that.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/body.h"
#include "confine/parent.h"

namespace tarvek {

napi_value Read(napi_env env, napi_callback_info info) {
  Root* root = nullptr;
  Segments segments;
  if (!Args(env, info, &root, &segments)) return nullptr;
  Parent parent;
  if (!OpenParent(env, *root, segments, /*create=*/false, &parent)) return nullptr;
  if (!PreEffect(env, *root, parent, segments)) return nullptr;
  const std::string& leaf = segments.back();

  struct stat named;
  if (!SafeLeafStat(env, parent.fd.get(), leaf, &named, /*allowMissing=*/false)) return nullptr;
  if (!S_ISREG(named.st_mode)) return Throw(env, kOutOfRoot);

  // Without O_NONBLOCK a FIFO put in the file's place would block here before it can be refused.
  const Descriptor file(
      ::openat(parent.fd.get(), leaf.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!file.ok()) return FailErrno(env, errno);
  struct stat opened;
  if (::fstat(file.get(), &opened) != 0) return FailErrno(env, errno);
  if (!S_ISREG(opened.st_mode) || opened.st_nlink >= 2 || !SameIdentity(opened, named)) {
    return Throw(env, kOutOfRoot);
  }

  Body body;
  if (!ReadBody(env, file.get(), opened.st_size, &body)) return nullptr;
  return BufferCopy(env, body.data.get(), body.length);
}

}  // namespace tarvek
