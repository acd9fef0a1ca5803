// openRelative: opens a directory below a root as a new root. The two handles are independent. The
// walk has the same checks as openRoot's, and starts from the handle instead of "/".

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/root.h"
#include "confine/directory.h"

namespace tarvek {

namespace {

constexpr Walk kRelativeWalk{.point = "relative-directory-open", .create = false};

}  // namespace

napi_value OpenRelative(napi_env env, napi_callback_info info) {
  const Root* root = nullptr;
  Segments segments;
  if (!Args(env, info, &root, &segments)) return nullptr;
  Descriptor current(::dup(root->fd.Get()));
  if (!current.IsOpen()) return FailErrno(env, errno);
  std::vector<Identity> identities;
  if (!WalkDirectories(env, kRelativeWalk, segments, &current, &identities, /*missing=*/nullptr)) {
    return nullptr;
  }
  return RootHandleAt(env, root->fd.Get(), segments, identities, current);
}

}  // namespace tarvek
