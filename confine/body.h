// A regular file's bytes in memory.
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

struct Body {
  std::unique_ptr<uint8_t, FreeMemory> data;  // null when there are no bytes
  size_t length = 0;
};

// Reads from the descriptor's offset until `size` bytes are there or the file ends, whichever comes
// first; the body holds what was read. A file that grows meanwhile is not followed. False: it has
// thrown. Memory that cannot be had ends as std::bad_alloc.
bool ReadBody(napi_env env, int fd, off_t size, Body* body);

}  // namespace tarvek
