// setTestHook and Hook. Without a hook, a point costs one test of a variable.

#include "addon/hook.h"

#include "addon/arguments.h"
#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"

namespace tarvek {

namespace {

// A reference belongs to the JavaScript environment that made it, and each environment runs on its
// own thread. If threads shared this, a worker would use a reference of another environment and
// crash the process.
thread_local napi_ref test_hook = nullptr;

napi_value HookArgument(napi_env env, const char* point, std::string_view segment, uint32_t index) {
  napi_value argument = nullptr;
  napi_value position = nullptr;
  napi_create_object(env, &argument);
  napi_create_uint32(env, index, &position);
  napi_set_named_property(env, argument, "point", String(env, point));
  napi_set_named_property(env, argument, "segment", String(env, segment));
  napi_set_named_property(env, argument, "index", position);
  return argument;
}

// Frees what is made for one event when the event is over: a capture fires once for each file.
class EventScope {
 public:
  explicit EventScope(napi_env env) : env_(env) { napi_open_escapable_handle_scope(env_, &scope_); }
  EventScope(const EventScope&) = delete;
  EventScope& operator=(const EventScope&) = delete;
  ~EventScope() { napi_close_escapable_handle_scope(env_, scope_); }

  void Keep(napi_value value, napi_value* kept) { napi_escape_handle(env_, scope_, value, kept); }

 private:
  napi_env env_;
  napi_escapable_handle_scope scope_ = nullptr;
};

}  // namespace

bool Hook(napi_env env, const char* point, std::string_view segment, uint32_t index,
          napi_value* result) {
  if (test_hook == nullptr) return true;
  EventScope scope(env);
  napi_value callback = nullptr;
  napi_value global = nullptr;
  napi_get_reference_value(env, test_hook, &callback);
  napi_get_global(env, &global);
  const napi_value argument = HookArgument(env, point, segment, index);
  napi_value returned = nullptr;
  if (napi_call_function(env, global, callback, 1, &argument, &returned) != napi_ok) return false;
  if (result != nullptr) scope.Keep(returned, result);
  return true;
}

napi_value SetTestHook(napi_env env, napi_callback_info info) {
  const CallArguments<1> call(env, info);
  // The old hook is removed first, for every argument: after a bad one no hook is installed.
  if (test_hook != nullptr) {
    napi_delete_reference(env, test_hook);
    test_hook = nullptr;
  }
  if (call.count == 0) return Undefined(env);
  napi_valuetype type = napi_undefined;
  napi_typeof(env, call.values[0], &type);
  if (type == napi_undefined || type == napi_null) return Undefined(env);
  if (type != napi_function) return Throw(env, kStorageFailed);
  napi_create_reference(env, call.values[0], 1, &test_hook);
  return Undefined(env);
}

}  // namespace tarvek
