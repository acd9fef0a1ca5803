// ensureRelativeSymlink: creates a symlink to an existing directory. Its text, the path
// stored in it, is relative. If a symlink with exactly this text exists, also one that another
// process has just created, the call succeeds without a change. Every other entry at that place is
// a conflict and is not replaced.
//
// The target is checked first, so that a missing target leaves no new directories. The text depends
// on the two paths alone: it climbs from the symlink to the root and descends from there. A common
// prefix is not removed, because equal arguments must give equal texts in every version.
//
// Left open on purpose: the target is checked once, and can change before the symlink is created.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

std::string LinkText(const Segments& link, const Segments& target) {
  std::string text;
  for (size_t level = 1; level < link.size(); ++level) text += "../";
  return text + JoinSegments(target);
}

bool ExactSymlink(int dirFd, const std::string& name, const std::string& text) {
  // The extra byte tells a longer text from an equal one.
  std::string found(text.size() + 1, '\0');
  const ssize_t length = ::readlinkat(dirFd, name.c_str(), found.data(), found.size());
  if (length < 0 || static_cast<size_t>(length) != text.size()) return false;
  found.resize(text.size());
  return found == text;
}

bool TargetIsDirectory(napi_env env, const Root& root, const Segments& target) {
  Parent parent;
  struct stat status;
  if (!OpenParent(env, root, target, /*create=*/false, &parent) ||
      !PreEffect(env, root, parent, target) ||
      !SafeLeafStat(env, parent.fd.Get(), target.back(), &status, /*allowMissing=*/false)) {
    return false;
  }
  return S_ISDIR(status.st_mode) || Refuse(env, kOutOfRoot);
}

}  // namespace

napi_value EnsureRelativeSymlink(napi_env env, napi_callback_info info) {
  const Root* root = nullptr;
  Segments link;
  Segments target;
  if (!ArgsOfTwoPaths(env, info, &root, &link, &target)) return nullptr;
  if (!TargetIsDirectory(env, *root, target)) return nullptr;
  const std::string text = LinkText(link, target);

  Parent parent;
  if (!OpenParent(env, *root, link, /*create=*/true, &parent)) return nullptr;
  if (!PreEffect(env, *root, parent, link)) return nullptr;
  const int dirFd = parent.fd.Get();
  const std::string& leaf = link.back();

  struct stat status;
  if (::fstatat(dirFd, leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    const bool same = S_ISLNK(status.st_mode) && ExactSymlink(dirFd, leaf, text);
    return same ? Boolean(env, false) : Throw(env, kLinkPlaceTaken);
  }
  if (errno != ENOENT) return FailErrno(env, errno);
  if (!ChainHolds(*root, parent)) return Throw(env, kOutOfRoot);

  if (::symlinkat(text.c_str(), dirFd, leaf.c_str()) != 0) {
    if (errno != EEXIST) return FailErrno(env, errno);
    return ExactSymlink(dirFd, leaf, text) ? Boolean(env, false) : Throw(env, kLinkPlaceTaken);
  }
  if (::fsync(dirFd) != 0) return FailErrno(env, errno);
  return Boolean(env, true);
}

}  // namespace tarvek
