// exists: tells whether an entry exists, whatever its type. Returns false if the entry or a
// directory on the way is missing. Refuses a symlink and a file with further hard links, because
// they can be aliases of something outside the root.

#include <sys/stat.h>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/parent.h"

namespace tarvek {

napi_value Exists(napi_env env, napi_callback_info info) {
  const Root* root = nullptr;
  Segments segments;
  if (!Args(env, info, &root, &segments)) return nullptr;
  Parent parent;
  bool missing = false;
  if (!OpenParent(env, *root, segments, /*create=*/false, &parent, &missing)) return nullptr;
  if (missing) return Boolean(env, false);
  if (!PreEffect(env, *root, parent, segments)) return nullptr;
  struct stat leaf;
  if (!SafeLeafStat(env, parent.fd.Get(), segments.back(), &leaf, /*allowMissing=*/true)) {
    return nullptr;
  }
  return Boolean(env, leaf.st_mode != 0);
}

}  // namespace tarvek
