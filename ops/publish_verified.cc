// publishVerified: gives a candidate file its final name, if it is still exactly what the caller
// has verified: the file behind the caller's read-only descriptor, with one link and the expected
// bytes. The new name is made as a hard link, which never replaces an entry. Then the old name is
// removed.
//
// In between the file has two names. A failure there removes the new one again, so that the file is
// either published or unchanged. A crash there leaves both names. So does a failure to remove the
// new name again. The caller's descriptor is borrowed: it is not closed, and its offset does not
// move.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "addon/error.h"
#include "addon/hook.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

struct PublishCall {
  const Root* root = nullptr;
  int32_t candidateFd = -1;
  Segments candidate;
  Segments destination;
  Bytes expected;
};

bool GetPublishCall(napi_env env, const CallArguments<5>& call, PublishCall* out) {
  if (call.count != 5) return false;
  out->root = GetRoot(env, call.values[0]);
  return out->root != nullptr &&
         napi_get_value_int32(env, call.values[1], &out->candidateFd) == napi_ok &&
         out->candidateFd >= 0 && GetSegments(env, call.values[2], &out->candidate) &&
         GetSegments(env, call.values[3], &out->destination) &&
         GetBytes(env, call.values[4], &out->expected);
}

// Whether the descriptor and the name are one file with the expected bytes, both before and after
// the bytes are compared. `verified` receives the last state of the file.
bool CandidateVerified(int fd, int dirFd, const char* name, const Bytes& expected,
                       struct stat* verified) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags == -1) return false;
  struct stat opened;
  struct stat named;
  if (::fstat(fd, &opened) != 0) return false;
  if (::fstatat(dirFd, name, &named, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // A writable descriptor could change the bytes after the comparison.
  if ((flags & O_ACCMODE) != O_RDONLY) return false;
  if (!IsSoleFile(opened) || !IsSoleFile(named) || !SameIdentity(opened, named)) return false;
  // A negative size becomes a huge number here, which no Buffer's length equals.
  if (static_cast<uint64_t>(opened.st_size) != expected.length) return false;
  if (!ReadExactAt(fd, expected)) return false;
  if (::fstat(fd, verified) != 0 || !SameStableMetadata(opened, *verified)) return false;
  if (::fstatat(dirFd, name, &named, AT_SYMLINK_NOFOLLOW) != 0) return false;
  return IsSoleFile(named) && SameStableMetadata(*verified, named);
}

bool NamesFile(int dirFd, const char* name, const struct stat& file) {
  struct stat named;
  return ::fstatat(dirFd, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(named.st_mode) &&
         SameIdentity(named, file);
}

}  // namespace

napi_value PublishVerified(napi_env env, napi_callback_info info) {
  const CallArguments<5> arguments(env, info);
  PublishCall call;
  if (!GetPublishCall(env, arguments, &call)) return Throw(env, kOutOfRoot);
  Parent source;
  Parent destination;
  if (!OpenBothParents(env, *call.root, call.candidate, call.destination, &source, &destination)) {
    return nullptr;
  }
  const char* from = call.candidate.back().c_str();
  const char* to = call.destination.back().c_str();

  // Required: index 0 at every depth. Tests of host applications rely on it.
  if (!Hook(env, "publish-before-validation", from, 0)) return nullptr;
  if (!ChainHolds(*call.root, source) || !ChainHolds(*call.root, destination)) {
    return Throw(env, kOutOfRoot);
  }
  if (!StillHolds(env, arguments.values[4], call.expected)) return Throw(env, kStorageFailed);
  struct stat verified;
  if (!CandidateVerified(call.candidateFd, source.fd.Get(), from, call.expected, &verified)) {
    return Throw(env, kCandidateChanged);
  }

  if (::linkat(source.fd.Get(), from, destination.fd.Get(), to, 0) != 0) {
    return errno == EEXIST ? Throw(env, kAlreadyExists) : FailErrno(env, errno);
  }
  if (!NamesFile(destination.fd.Get(), to, verified)) {
    // Required: the entry with that name is removed even if it is not the candidate. What the new
    // name leads to was not verified and must not stay published.
    (void)::unlinkat(destination.fd.Get(), to, 0);
    return Throw(env, kStorageFailed);
  }
  if (::unlinkat(source.fd.Get(), from, 0) != 0) {
    const int unlinkError = errno;
    (void)::unlinkat(destination.fd.Get(), to, 0);
    return FailErrno(env, unlinkError);
  }
  // The new name first. On btrfs a directory's flush brings only that directory's changes to the
  // disk: with the removal flushed first, a power cut between the two would lose both names.
  if (!FlushBothParents(destination, source)) return FailErrno(env, errno);
  return Undefined(env);
}

}  // namespace tarvek
