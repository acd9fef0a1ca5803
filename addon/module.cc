// The module's entry: the table of exported functions, and the guard around each of them.

#include <node_api.h>

#include <array>
#include <cstdint>
#include <exception>

#include "addon/error.h"
#include "addon/operations.h"

namespace tarvek {

namespace {

// No C++ exception may cross into Node. Only a failed request for memory throws (std::bad_alloc,
// std::length_error). By the time it arrives here, destructors have released everything.
template <napi_callback kOperation>
napi_value Guarded(napi_env env, napi_callback_info info) noexcept {
  try {
    return kOperation(env, info);
  } catch (const std::exception&) {
    return Throw(env, kStorageFailed);
  }
}

template <napi_callback kOperation>
constexpr napi_property_descriptor Export(const char* name) {
  return {.utf8name = name,
          .name = nullptr,
          .method = Guarded<kOperation>,
          .getter = nullptr,
          .setter = nullptr,
          .value = nullptr,
          .attributes = napi_default,
          .data = nullptr};
}

constexpr std::array kExports{
    Export<OpenRoot>("open"),
    Export<OpenRoot>("openRoot"),
    Export<OpenRelative>("openRelative"),
    Export<CloseRoot>("close"),
    Export<RootIdentity>("rootIdentity"),
    Export<Exists>("exists"),
    Export<List>("list"),
    Export<Capture>("capture"),
    Export<Snapshot>("snapshot"),
    Export<Read>("read"),
    Export<Write>("write"),
    Export<Create>("create"),
    Export<Append>("append"),
    Export<EnsureDirectory>("ensureDirectory"),
    Export<EnsureRelativeSymlink>("ensureRelativeSymlink"),
    Export<Remove>("remove"),
    Export<RemoveIfEquals>("removeIfEquals"),
    Export<Move>("move"),
    Export<PublishVerified>("publishVerified"),
    Export<SetTestHook>("setTestHook"),
    Export<ExchangeForTest>("exchangeForTest"),
};

napi_value Init(napi_env env, napi_value exports) {
  napi_define_properties(env, exports, kExports.size(), kExports.data());
  return exports;
}

}  // namespace

}  // namespace tarvek

// The two symbols that Node looks up by name; the module exports nothing else.
extern "C" {

NAPI_MODULE_EXPORT int32_t node_api_module_get_api_version_v1() {
  static_assert(NAPI_VERSION == 9);
  return NAPI_VERSION;
}

NAPI_MODULE_EXPORT napi_value napi_register_module_v1(napi_env env, napi_value exports) {
  return tarvek::Init(env, exports);
}

}  // extern "C"
