// removeIfEquals: deletes a file only if its whole content is what the caller expects, and only if
// its metadata does not change from the first look to the last. The metadata is compared three
// times: name and open file, open file before and after the reading, open file and name. The chain
// of directories is validated last.
//
// Left open on purpose: there is no lock. Between the last look and the unlink, another entry can
// take the name.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "addon/error.h"
#include "addon/hook.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

struct RemoveIfEqualsCall {
  const Root* root = nullptr;
  Segments segments;
  Bytes expected;
};

bool GetRemoveIfEqualsCall(napi_env env, const CallArguments<3>& call, RemoveIfEqualsCall* out) {
  if (call.count != 3) return false;
  out->root = GetRoot(env, call.values[0]);
  return out->root != nullptr && GetSegments(env, call.values[1], &out->segments) &&
         GetBytes(env, call.values[2], &out->expected);
}

// Whether the open file is the named one, holds the expected bytes, and did not change while they
// were compared. `after` receives its last state.
bool HoldsUnchanged(int fd, const struct stat& named, const Bytes& expected, struct stat* after) {
  struct stat before;
  // A negative size becomes a huge number here, which no Buffer's length equals.
  return ::fstat(fd, &before) == 0 && SameStableMetadata(named, before) &&
         static_cast<uint64_t>(before.st_size) == expected.length && ReadExactAt(fd, expected) &&
         ::fstat(fd, after) == 0 && SameStableMetadata(before, *after);
}

bool NameUnchanged(int dirFd, const std::string& name, const struct stat& before) {
  struct stat now;
  return ::fstatat(dirFd, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
         SameStableMetadata(before, now);
}

}  // namespace

napi_value RemoveIfEquals(napi_env env, napi_callback_info info) {
  const CallArguments<3> arguments(env, info);
  RemoveIfEqualsCall call;
  if (!GetRemoveIfEqualsCall(env, arguments, &call)) return Throw(env, kStorageFailed);
  Parent parent;
  if (!OpenParent(env, *call.root, call.segments, /*create=*/false, &parent)) return nullptr;
  if (!PreEffect(env, *call.root, parent, call.segments)) return nullptr;
  const int dirFd = parent.fd.Get();
  const std::string& leaf = call.segments.back();
  const uint32_t index = LeafIndex(call.segments);

  struct stat named;
  if (!SafeLeafStat(env, dirFd, leaf, &named, /*allowMissing=*/false)) return nullptr;
  if (!IsSoleFile(named)) return Throw(env, kOutOfRoot);

  if (!Hook(env, "remove-if-equals-open", leaf, index)) return nullptr;
  // Without O_NONBLOCK, a FIFO that takes the file's place would block here, and so would a lease.
  const Descriptor file(
      ::openat(dirFd, leaf.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!file.IsOpen()) return FailErrno(env, errno);
  if (!StillHolds(env, arguments.values[2], call.expected)) return Throw(env, kStorageFailed);
  struct stat compared;
  if (!HoldsUnchanged(file.Get(), named, call.expected, &compared)) {
    return Throw(env, kChangedBeforeRemoval);
  }

  if (!Hook(env, "remove-if-equals-unlink", leaf, index)) return nullptr;
  if (!NameUnchanged(dirFd, leaf, compared)) return Throw(env, kChangedBeforeRemoval);
  if (!ChainHolds(*call.root, parent)) return Throw(env, kOutOfRoot);
  if (::unlinkat(dirFd, leaf.c_str(), 0) != 0 || ::fsync(dirFd) != 0) {
    return FailErrno(env, errno);
  }
  return Undefined(env);
}

}  // namespace tarvek
