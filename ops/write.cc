// write and create.
//
// write: replaces a file. A temporary file in the same directory receives the bytes, is flushed,
// and is renamed over the target. Then the directory is flushed. A failure before the rename leaves
// the old content and removes the temporary file, and a later failure leaves the new content. A
// crash before the rename, or a failed unlink, leaves the temporary file.
//
// create: makes a new file in place with O_EXCL. A failure half-way leaves a partial file: it is
// never removed, so that the caller can examine it.
//
// Left open on purpose: write replaces an entry that takes the target's name between the last look
// and the rename.

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

constexpr int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

// All JavaScript environments of the process share it, and each runs on its own thread.
std::atomic<uint64_t> sequence{0};

// The random digits keep names apart: process ids are reused, and containers share them. A failed
// getrandom is no reason to fail, because the exclusive open refuses a name that is taken.
std::string TempName() {
  std::array<uint8_t, 16> random{};
  [[maybe_unused]] const ssize_t drawn = ::getrandom(random.data(), random.size(), 0);
  std::string name =
      ".tarvek-" + std::to_string(::getpid()) + '-' + std::to_string(++sequence) + '-';
  for (const uint8_t byte : random) {
    constexpr char kDigits[] = "0123456789abcdef";
    name += kDigits[byte >> 4];
    name += kDigits[byte & 0xf];
  }
  return name;
}

// The name of a temporary file on disk. Unlinked on destruction, unless kept.
class TempEntry {
 public:
  TempEntry(int dirFd, const std::string& name) : dirFd_(dirFd), name_(name) {}
  TempEntry(const TempEntry&) = delete;
  TempEntry& operator=(const TempEntry&) = delete;
  ~TempEntry() { Unlink(); }

  void Keep() { present_ = false; }

  // Ignores errors. After a failed write or flush the caller reads errno, so that a failed unlink
  // is reported.
  void Unlink() {
    if (std::exchange(present_, false)) (void)::unlinkat(dirFd_, name_.c_str(), 0);
  }

 private:
  int dirFd_;
  const std::string& name_;
  bool present_ = true;
};

// Returns false with errno set. After a write that returns 0, errno still holds its earlier value.
bool WriteAll(int fd, const Bytes& body) {
  size_t offset = 0;
  while (offset < body.length) {
    const ssize_t count = WriteSome(fd, body.data + offset, body.length - offset);
    if (count <= 0) return false;
    offset += static_cast<size_t>(count);
  }
  return true;
}

// Returns true without a callback. Returns false if the callback threw, with its exception pending.
bool WriteStage(napi_env env, napi_value stage, const char* name) {
  if (stage == nullptr) return true;
  napi_value global = nullptr;
  napi_get_global(env, &global);
  const napi_value argument = String(env, name);
  return napi_call_function(env, global, stage, 1, &argument, nullptr) == napi_ok;
}

struct WriteCall {
  const Root* root = nullptr;
  Segments segments;
  Bytes body;
  napi_value stage = nullptr;  // null when none was given
};

// Returns false after throwing, because the error depends on the fault.
bool GetWriteCall(napi_env env, const CallArguments<4>& call, WriteCall* out) {
  if (call.count < 3 || call.count > 4) return Refuse(env, kOutOfRoot);
  out->root = GetRoot(env, call.values[0]);
  if (out->root == nullptr || !GetSegments(env, call.values[1], &out->segments)) {
    return Refuse(env, kOutOfRoot);
  }
  if (call.count == 4) {
    if (!IsType(env, call.values[3], napi_function)) return Refuse(env, kStorageFailed);
    out->stage = call.values[3];
  }
  return GetBytes(env, call.values[2], &out->body) || Refuse(env, kStorageFailed);
}

napi_value CreateInPlace(napi_env env, const Parent& parent, const std::string& leaf,
                         const Bytes& body) {
  const Descriptor file(::openat(parent.fd.Get(), leaf.c_str(), kExclusive, kNewFileMode));
  if (!file.IsOpen()) {
    return errno == EEXIST ? Throw(env, kAlreadyExists) : FailErrno(env, errno);
  }
  if (!WriteAll(file.Get(), body) || ::fsync(file.Get()) != 0 || ::fsync(parent.fd.Get()) != 0) {
    return FailErrno(env, errno);
  }
  return Undefined(env);
}

napi_value ReplaceAtomically(napi_env env, const WriteCall& call, const Parent& parent) {
  const std::string& leaf = call.segments.back();
  const std::string temp = TempName();
  Descriptor file(::openat(parent.fd.Get(), temp.c_str(), kExclusive, kNewFileMode));
  if (!file.IsOpen()) return FailErrno(env, errno);
  TempEntry entry(parent.fd.Get(), temp);  // destroyed before `file`: unlinked, then closed

  const bool written = WriteAll(file.Get(), call.body);
  if (written && !WriteStage(env, call.stage, "after-temp-write")) return nullptr;
  if (!written || ::fsync(file.Get()) != 0) {
    // Required: errno is read after the unlink, so a failed unlink is reported instead.
    entry.Unlink();
    return FailErrno(env, errno);
  }
  if (!WriteStage(env, call.stage, "after-file-sync")) return nullptr;
  file.Close();
  if (!WriteStage(env, call.stage, "before-file-rename")) return nullptr;

  if (!ChainHolds(*call.root, parent)) {
    // Before Throw: making the error can run a setter on Object.prototype, which must not find the
    // temporary file.
    entry.Unlink();
    return Throw(env, kOutOfRoot);
  }
  if (::renameat(parent.fd.Get(), temp.c_str(), parent.fd.Get(), leaf.c_str()) != 0) {
    const int renameError = errno;
    entry.Unlink();
    return FailErrno(env, renameError);
  }
  entry.Keep();

  if (!WriteStage(env, call.stage, "after-file-rename")) return nullptr;
  if (::fsync(parent.fd.Get()) != 0) return FailErrno(env, errno);
  if (!WriteStage(env, call.stage, "after-directory-sync")) return nullptr;
  return Undefined(env);
}

napi_value WriteCommon(napi_env env, napi_callback_info info, bool create) {
  const CallArguments<4> arguments(env, info);
  WriteCall call;
  if (!GetWriteCall(env, arguments, &call)) return nullptr;
  Parent parent;
  if (!OpenParent(env, *call.root, call.segments, /*create=*/true, &parent)) return nullptr;
  if (!PreEffect(env, *call.root, parent, call.segments)) return nullptr;
  const std::string& leaf = call.segments.back();
  struct stat status;
  if (!SafeLeafStat(env, parent.fd.Get(), leaf, &status, /*allowMissing=*/true)) return nullptr;

  const bool present = status.st_mode != 0;
  if (create && present) return Throw(env, kAlreadyExists);
  if (present && !S_ISREG(status.st_mode)) return Throw(env, kOutOfRoot);
  if (!StillHolds(env, arguments.values[2], call.body)) return Throw(env, kStorageFailed);
  return create ? CreateInPlace(env, parent, leaf, call.body)
                : ReplaceAtomically(env, call, parent);
}

}  // namespace

napi_value Write(napi_env env, napi_callback_info info) {
  return WriteCommon(env, info, /*create=*/false);
}

napi_value Create(napi_env env, napi_callback_info info) {
  return WriteCommon(env, info, /*create=*/true);
}

}  // namespace tarvek
