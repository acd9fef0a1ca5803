// The callbacks behind the exported functions. Only the export table uses them.
#pragma once

#include <node_api.h>

namespace tarvek {

napi_value OpenRoot(napi_env env, napi_callback_info info);
napi_value OpenRelative(napi_env env, napi_callback_info info);
napi_value CloseRoot(napi_env env, napi_callback_info info);
napi_value RootIdentity(napi_env env, napi_callback_info info);
napi_value Exists(napi_env env, napi_callback_info info);
napi_value List(napi_env env, napi_callback_info info);
napi_value Capture(napi_env env, napi_callback_info info);
napi_value Snapshot(napi_env env, napi_callback_info info);
napi_value Read(napi_env env, napi_callback_info info);
napi_value Write(napi_env env, napi_callback_info info);
napi_value Create(napi_env env, napi_callback_info info);
napi_value Append(napi_env env, napi_callback_info info);
napi_value EnsureDirectory(napi_env env, napi_callback_info info);
napi_value EnsureRelativeSymlink(napi_env env, napi_callback_info info);
napi_value Remove(napi_env env, napi_callback_info info);
napi_value RemoveIfEquals(napi_env env, napi_callback_info info);
napi_value Move(napi_env env, napi_callback_info info);
napi_value PublishVerified(napi_env env, napi_callback_info info);
napi_value SetTestHook(napi_env env, napi_callback_info info);
napi_value ExchangeForTest(napi_env env, napi_callback_info info);

}  // namespace tarvek
