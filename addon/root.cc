// openRoot, close, rootIdentity, and the reading of a handle argument.
//
// openRoot walks an absolute path from "/" one component at a time and follows no symlink, not even
// one that the system provides. It validates the whole path a second time before it makes the
// handle. From then on the handle stands for the directory. The path is never used again, so later
// changes to it have no effect.

#include "addon/root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "addon/error.h"
#include "addon/hook.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "confine/directory.h"

namespace tarvek {

namespace {

constexpr Walk kRootWalk{.point = "root-ancestor-open", .create = false};

Descriptor OpenFileSystemRoot() {
  return Descriptor(::open("/", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool IsAbsolutePath(std::string_view path) {
  return path.starts_with('/') && !path.ends_with('/') &&
         path.find("//") == std::string_view::npos && path.find('\0') == std::string_view::npos;
}

bool IsComponent(std::string_view name) {
  return name != "." && name != ".." && name.find('\\') == std::string_view::npos;
}

// `path` begins with "/" and has no empty component.
bool SplitPath(std::string_view path, Segments* components) {
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view name = path.substr(0, path.find('/'));
    if (!IsComponent(name)) return false;
    components->emplace_back(name);
    path.remove_prefix(name.size());
  }
  return true;
}

// The record behind a handle, open or closed. Null if `value` is not an external.
Root* RootBehind(napi_env env, napi_value value) {
  if (!IsType(env, value, napi_external)) return nullptr;
  void* data = nullptr;
  // Cannot fail for an external.
  if (napi_get_value_external(env, value, &data) != napi_ok) return nullptr;
  return static_cast<Root*>(data);
}

void RootFinalizer(napi_env /*env*/, void* data, void* /*hint*/) {
  delete static_cast<Root*>(data);
}

napi_value BigInt(napi_env env, uint64_t value) {
  napi_value result = nullptr;
  napi_create_bigint_uint64(env, value, &result);
  return result;
}

// Takes ownership of the record and returns its handle. On failure frees the record and returns
// null with an exception pending.
napi_value RootExternal(napi_env env, std::unique_ptr<Root> root) {
  if (!Hook(env, "external-create", "", 0)) return nullptr;
  napi_value handle = nullptr;
  if (napi_create_external(env, root.get(), RootFinalizer, nullptr, &handle) != napi_ok) {
    // Happens in a worker that is being ended. Without memory, Node ends the process instead.
    bool pending = false;
    napi_is_exception_pending(env, &pending);
    return pending ? nullptr : Throw(env, kStorageFailed);
  }
  (void)root.release();
  return handle;
}

}  // namespace

const Root* GetRoot(napi_env env, napi_value value) {
  const Root* root = RootBehind(env, value);
  return root != nullptr && root->fd.IsOpen() ? root : nullptr;
}

bool Args(napi_env env, napi_callback_info info, const Root** root, Segments* segments) {
  const CallArguments<2> call(env, info);
  if (call.count != 2 || !GetSegments(env, call.values[1], segments)) {
    return Refuse(env, kOutOfRoot);
  }
  *root = GetRoot(env, call.values[0]);
  if (*root == nullptr) return Refuse(env, kHandleClosed);
  return true;
}

bool ArgsOfTwoPaths(napi_env env, napi_callback_info info, const Root** root, Segments* first,
                    Segments* second) {
  const CallArguments<3> call(env, info);
  *root = call.count == 3 ? GetRoot(env, call.values[0]) : nullptr;
  const bool good = *root != nullptr && GetSegments(env, call.values[1], first) &&
                    GetSegments(env, call.values[2], second);
  return good || Refuse(env, kOutOfRoot);
}

napi_value RootHandleAt(napi_env env, int startFd, std::span<const std::string> names,
                        std::span<const Identity> identities, const Descriptor& directory) {
  if (!ValidateChain(startFd, names, identities)) return Throw(env, kOutOfRoot);
  struct stat status;
  // O_DIRECTORY admits nothing else. Checked again, because everything relies on it.
  if (::fstat(directory.Get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return Throw(env, kOutOfRoot);
  }
  auto root = std::make_unique<Root>();
  // Required: a plain dup, without close-on-exec. Child processes inherit a handle's descriptor.
  root->fd = Descriptor(::dup(directory.Get()));
  if (!root->fd.IsOpen()) return FailErrno(env, errno);
  root->identity = IdentityOf(status);
  return RootExternal(env, std::move(root));
}

napi_value OpenRoot(napi_env env, napi_callback_info info) {
  const CallArguments<1> call(env, info);
  std::string path;
  if (call.count != 1 || !GetString(env, call.values[0], &path) || !IsAbsolutePath(path)) {
    return Throw(env, kOutOfRoot);
  }
  Descriptor current = OpenFileSystemRoot();
  if (!current.IsOpen()) return FailErrno(env, errno);
  Segments components;
  if (!SplitPath(path, &components)) return Throw(env, kOutOfRoot);

  std::vector<Identity> identities;
  if (!WalkDirectories(env, kRootWalk, components, &current, &identities, /*missing=*/nullptr)) {
    return nullptr;
  }
  const Descriptor start = OpenFileSystemRoot();
  if (!start.IsOpen()) return FailErrno(env, errno);
  return RootHandleAt(env, start.Get(), components, identities, current);
}

napi_value CloseRoot(napi_env env, napi_callback_info info) {
  const CallArguments<1> call(env, info);
  Root* root = call.count == 1 ? RootBehind(env, call.values[0]) : nullptr;
  if (root == nullptr) return Throw(env, kStorageFailed);
  if (root->fd.IsOpen()) {
    // Required: a handle whose close fails still counts as open. Linux has released the descriptor
    // even so, and its number may belong to another file by now. Callers must not use it again.
    if (::close(root->fd.Get()) != 0) return FailErrno(env, errno);
    (void)root->fd.Release();
  }
  return Undefined(env);
}

napi_value RootIdentity(napi_env env, napi_callback_info info) {
  const CallArguments<1> call(env, info);
  const Root* root = call.count == 1 ? GetRoot(env, call.values[0]) : nullptr;
  if (root == nullptr) return Throw(env, kHandleClosed);
  napi_value result = nullptr;
  napi_create_object(env, &result);
  napi_set_named_property(env, result, "dev", BigInt(env, root->identity.dev));
  napi_set_named_property(env, result, "ino", BigInt(env, root->identity.ino));
  return result;
}

}  // namespace tarvek
