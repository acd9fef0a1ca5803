#include "confine/parent.h"

#include <unistd.h>

#include <cerrno>

#include "addon/error.h"
#include "addon/hook.h"
#include "confine/directory.h"

namespace tarvek {

bool OpenParent(napi_env env, const Root& root, const Segments& segments, bool create,
                Parent* parent, bool* missing) {
  parent->fd = Descriptor(::dup(root.fd.Get()));
  if (!parent->fd.IsOpen()) return RefuseErrno(env, errno);
  const std::span ancestors = std::span(segments).first(segments.size() - 1);
  const Walk walk{.point = "ancestor-open", .create = create};
  if (!WalkDirectories(env, walk, ancestors, &parent->fd, &parent->identities, missing)) {
    return false;
  }
  parent->segments = ancestors.first(parent->identities.size());
  return true;
}

bool PreEffect(napi_env env, const Root& root, const Parent& parent, const Segments& segments) {
  if (!Hook(env, "pre-effect", segments.back(), LeafIndex(segments))) return false;
  return ChainHolds(root, parent) || Refuse(env, kOutOfRoot);
}

bool ChainHolds(const Root& root, const Parent& parent) {
  return ValidateChain(root.fd.Get(), parent.segments, parent.identities);
}

bool OpenTarget(napi_env env, napi_callback_info info, bool create, Target* target) {
  return Args(env, info, &target->root, &target->segments) &&
         OpenParent(env, *target->root, target->segments, create, &target->parent) &&
         PreEffect(env, *target->root, target->parent, target->segments);
}

bool OpenBothParents(napi_env env, const Root& root, const Segments& from, const Segments& to,
                     Parent* source, Parent* destination) {
  return OpenParent(env, root, from, /*create=*/false, source) &&
         OpenParent(env, root, to, /*create=*/true, destination) &&
         PreEffect(env, root, *source, from) && PreEffect(env, root, *destination, to);
}

bool FlushBothParents(const Parent& first, const Parent& second) {
  return ::fsync(first.fd.Get()) == 0 && ::fsync(second.fd.Get()) == 0;
}

}  // namespace tarvek
