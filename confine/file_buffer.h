// A regular file's bytes, on their way into the Buffer that JavaScript receives.
//
// ReadFileBuffer and ReadFileBody read from the descriptor's offset until `size` bytes are there or
// the file ends. A file that ends early yields a shorter Buffer, and a file that grows meanwhile is
// not followed. Memory that no read has filled never reaches JavaScript.
//
// The runtime owns a Buffer's memory from the start. A handle of the running call keeps the Buffer
// alive; after a failure nothing else refers to it, and the collector frees it.
//
// They return false after throwing. All three throw std::bad_alloc if there is no memory.
#pragma once

#include <node_api.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tarvek {

// Reads straight into a new Buffer.
bool ReadFileBuffer(napi_env env, int fd, off_t size, napi_value* buffer);

// One file's content, for an operation that reads many files before it returns. Either `buffer` or
// `bytes` holds it: a small file has no Buffer yet, because the collector would visit each Buffer
// again and again while the rest is read.
struct FileBody {
  napi_value buffer = nullptr;
  std::unique_ptr<uint8_t[]> bytes;
  size_t length = 0;
};

bool ReadFileBody(napi_env env, int fd, off_t size, FileBody* body);

// The Buffer with the content. Null if an exception is pending.
napi_value BodyBuffer(napi_env env, const FileBody& body);

}  // namespace tarvek
