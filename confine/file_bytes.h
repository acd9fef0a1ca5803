// A regular file's bytes in memory of our own. (A Buffer's, borrowed for a call, are Bytes.)
#pragma once

#include <node_api.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace tarvek {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

struct FileBytes {
  std::unique_ptr<uint8_t[], FreeMemory> data;  // null when there are none
  size_t length = 0;
};

// Reads from the descriptor's offset until `size` bytes are there or the file ends, whichever comes
// first. A file that grows meanwhile is not followed. False: it has thrown. Memory that cannot be
// had ends as std::bad_alloc.
bool ReadFileBytes(napi_env env, int fd, off_t size, FileBytes* bytes);

// A Buffer with a copy of the bytes. Memory for it that cannot be had ends as std::bad_alloc.
napi_value BufferCopy(napi_env env, const FileBytes& bytes);

}  // namespace tarvek
