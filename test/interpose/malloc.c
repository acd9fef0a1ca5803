// Fails every request for FAILING_SIZE bytes that the module itself makes. Node and the C++ library
// get their memory. Preloaded into test/programs/limited-call.js.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

typedef void* Allocate(size_t);

static int IsModule(const void* caller) {
  Dl_info info;
  return dladdr(caller, &info) != 0 && strstr(info.dli_fname, "/tarvek.node") != NULL;
}

void* malloc(size_t size) {
  static Allocate* real;
  if (real == NULL) real = (Allocate*)dlsym(RTLD_NEXT, "malloc");
  if (size == FAILING_SIZE && IsModule(__builtin_return_address(0))) return NULL;
  return real(size);
}
