// append: adds bytes to the end of a file, or to a new one, unless the file is shorter than the
// caller states. One write extends the file in place. Then the file and its directory are flushed.
//
// A short write is flushed too, and then reported. Nothing is undone: the bytes stay, and so does a
// file created here.
//
// Left open on purpose: other processes may append at the same time, and each write lands at the
// end of the file at that moment. The file may also change its size between the check and the
// write.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "addon/error.h"
#include "addon/hook.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

constexpr int kAppending = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
constexpr int kOpenAttempts = 8;

struct AppendCall {
  const Root* root = nullptr;
  Segments segments;
  int64_t expectedSize = 0;
  int64_t minimumSize = 0;
  Bytes body;
};

bool GetAppendCall(napi_env env, const CallArguments<5>& call, AppendCall* out) {
  if (call.count != 5) return false;
  out->root = GetRoot(env, call.values[0]);
  return out->root != nullptr && GetSegments(env, call.values[1], &out->segments) &&
         napi_get_value_int64(env, call.values[2], &out->expectedSize) == napi_ok &&
         napi_get_value_int64(env, call.values[3], &out->minimumSize) == napi_ok &&
         out->expectedSize >= 0 && out->minimumSize >= 0 && out->expectedSize >= out->minimumSize &&
         GetBytes(env, call.values[4], &out->body);
}

// The open can fail with ENOENT while another process removes or replaces the file, so it is
// retried a few times. Without O_NONBLOCK, a FIFO that takes the file's place would make the call
// wait for a reader, and a lease of another process would make it wait for the end of the lease. A
// thread that waits there cannot be ended. Returns an empty descriptor with errno set.
Descriptor OpenForAppend(int dirFd, const std::string& leaf) {
  Descriptor file;
  for (int attempt = 0; attempt < kOpenAttempts && !file.IsOpen(); ++attempt) {
    file = Descriptor(::openat(dirFd, leaf.c_str(), kAppending, kNewFileMode));
    if (!file.IsOpen() && errno != ENOENT && errno != EINTR) break;
  }
  return file;
}

// Whether the descriptor and the name are the same regular file with one link and, if the file
// existed at the first look, the same file as then.
bool IsNamedFile(const struct stat& opened, const struct stat& named, const struct stat& before) {
  return IsSoleFile(opened) && IsSoleFile(named) && SameIdentity(opened, named) &&
         (before.st_mode == 0 || SameIdentity(before, opened));
}

// The hook limits the count by returning a number. Returns false if that is 0 as an unsigned 32-bit
// integer.
bool LimitCount(napi_env env, napi_value returned, size_t* count) {
  if (!IsType(env, returned, napi_number)) return true;
  uint32_t limit = 0;
  // The status is always good for a number.
  if (napi_get_value_uint32(env, returned, &limit) != napi_ok || limit == 0) return false;
  *count = std::min<size_t>(*count, limit);
  return true;
}

}  // namespace

napi_value Append(napi_env env, napi_callback_info info) {
  const CallArguments<5> arguments(env, info);
  AppendCall call;
  if (!GetAppendCall(env, arguments, &call)) return Throw(env, kStorageFailed);
  Parent parent;
  if (!OpenParent(env, *call.root, call.segments, /*create=*/true, &parent)) return nullptr;
  if (!PreEffect(env, *call.root, parent, call.segments)) return nullptr;
  const int dirFd = parent.fd.Get();
  const std::string& leaf = call.segments.back();
  const uint32_t index = LeafIndex(call.segments);

  struct stat before;
  if (!SafeLeafStat(env, dirFd, leaf, &before, /*allowMissing=*/true)) return nullptr;
  if (before.st_mode != 0 && !S_ISREG(before.st_mode)) return Throw(env, kOutOfRoot);

  if (!Hook(env, "append-leaf-open", leaf, index)) return nullptr;
  const Descriptor file = OpenForAppend(dirFd, leaf);
  if (!file.IsOpen()) return FailErrno(env, errno);
  struct stat opened;
  struct stat named;
  if (::fstat(file.Get(), &opened) != 0 ||
      ::fstatat(dirFd, leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
    return FailErrno(env, errno);
  }
  if (!IsNamedFile(opened, named, before)) return Throw(env, kOutOfRoot);
  // This covers the minimum size too, which is not above the expected size.
  if (opened.st_size < call.expectedSize) return Throw(env, kChangedBeforeAppend);

  size_t count = call.body.length;
  napi_value returned = nullptr;
  if (!Hook(env, "append-write", leaf, index, &returned)) return nullptr;
  if (!LimitCount(env, returned, &count)) return Throw(env, kStorageFailed);
  if (!StillHolds(env, arguments.values[4], call.body)) return Throw(env, kStorageFailed);
  // Required: one write, also for an empty body. The rest of a short write is not written.
  const ssize_t written = WriteSome(file.Get(), call.body.data, count);
  if (written < 0) return FailErrno(env, errno);

  if (!Hook(env, "append-data-fsync", leaf, index)) return nullptr;
  if (::fsync(file.Get()) != 0) return FailErrno(env, errno);
  if (!Hook(env, "append-directory-fsync", leaf, index)) return nullptr;
  if (::fsync(dirFd) != 0) return FailErrno(env, errno);
  if (static_cast<size_t>(written) != call.body.length) return Throw(env, kStorageFailed);
  return Undefined(env);
}

}  // namespace tarvek
