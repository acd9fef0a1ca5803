// list: returns the names in one directory, sorted by their bytes. Lists entries of every type,
// also temporary files that a crash has left. Checks that the open directory is the named one. An
// entry that appears or vanishes during the call may or may not be listed.

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "confine/directory.h"
#include "confine/parent.h"

namespace tarvek {

namespace {

napi_value NameArray(napi_env env, const Names& names) {
  napi_value result = nullptr;
  napi_create_array_with_length(env, names.sorted.size(), &result);
  uint32_t index = 0;
  for (const char* name : names.sorted) napi_set_element(env, result, index++, String(env, name));
  return result;
}

}  // namespace

napi_value List(napi_env env, napi_callback_info info) {
  Target target;
  if (!OpenTarget(env, info, /*create=*/false, &target)) return nullptr;
  Descriptor directory;
  if (!OpenListed(env, target.parent.fd.Get(), target.segments.back(), &directory)) return nullptr;
  Names names;
  if (!ReadNames(env, directory.Get(), &names)) return nullptr;
  return NameArray(env, names);
}

}  // namespace tarvek
