// move: renames an entry within a root, creates the missing directories of the destination, and
// flushes both parent directories. Refuses a destination that exists.
//
// Left open on purpose: this is a plain rename, so it can replace an entry that appears at the
// destination after the look. The source's parent is validated before the destination's, and can be
// moved in between. Directories created for the destination stay if the move fails.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"

namespace tarvek {

napi_value Move(napi_env env, napi_callback_info info) {
  const Root* root = nullptr;
  Segments from;
  Segments to;
  if (!ArgsOfTwoPaths(env, info, &root, &from, &to)) return nullptr;
  Parent source;
  Parent destination;
  if (!OpenBothParents(env, *root, from, to, &source, &destination)) return nullptr;

  struct stat entry;
  struct stat existing;
  if (!SafeLeafStat(env, source.fd.Get(), from.back(), &entry, /*allowMissing=*/false) ||
      !SafeLeafStat(env, destination.fd.Get(), to.back(), &existing, /*allowMissing=*/true)) {
    return nullptr;
  }
  if (existing.st_mode != 0) return Throw(env, kAlreadyExists);

  if (::renameat(source.fd.Get(), from.back().c_str(), destination.fd.Get(), to.back().c_str()) !=
          0 ||
      !FlushBothParents(source, destination)) {
    return FailErrno(env, errno);
  }
  return Undefined(env);
}

}  // namespace tarvek
