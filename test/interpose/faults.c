// Stands between the module and libc: makes calls fail, records them, kills the process half-way.
// Preloaded into the test process, and loaded by it once more as an addon, an ArrayBuffer over the
// state below. Only calls that come out of tarvek.node while it is armed count.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

enum Action { FAIL = 1, SHORT, ZERO, KILL };

static struct {
  int32_t armed;
  int32_t first, count, action;  // what befalls which calls, counted from 1
  int32_t error[2];              // of the first call that fails, and of those after it
  int32_t calls, length;         // recorded, and the length of the record
  char record[1 << 16];          // a JSON array for each: name, arguments, result
} state;

// All that is wrapped takes up to six integers or pointers. On x86-64 these travel in registers,
// whatever their types and number, so one signature serves for all.
typedef long Function(long, long, long, long, long, long);
#define CALL(function, a) function(a[0], a[1], a[2], a[3], a[4], a[5])

#define RECORD(...)                                     \
  state.length += snprintf(state.record + state.length, \
                           sizeof state.record - (size_t)state.length, __VA_ARGS__)

// `shape` has a letter for each argument: i an integer, s a string, b bytes, n how many, p whatever
// is left out.
static void Record(const char* name, const char* shape, const long* a, long result) {
  RECORD("[\"%s\"", name);
  for (int i = 0; shape[i] != '\0'; ++i) {
    if (shape[i] == 'i' || shape[i] == 'n') RECORD(",%d", (int)a[i]);
    if (shape[i] == 's') RECORD(",\"%s\"", (const char*)a[i]);
    if (shape[i] == 'b') RECORD(",\"%.*s\"", (int)a[i + 1], (const char*)a[i]);
  }
  RECORD(",%d]\n", (int)result);
  ++state.calls;
}

// Goes on in a process that is to die; in this one, waits for how it ended. What memory V8 keeps
// from being inherited is needed there too.
static int IsVictim(void) {
  unsigned long start, end;
  FILE* maps = fopen("/proc/self/maps", "r");
  while (fscanf(maps, "%lx-%lx%*[^\n]", &start, &end) == 2) {
    madvise((void*)start, end - start, MADV_DOFORK);
  }
  fclose(maps);
  const pid_t victim = fork();
  if (victim == 0) return alarm(10), 1;
  return waitpid(victim, &state.error[1], 0), 0;
}

static long Act(Function* real, const char* name, const char* shape, long failure, long* a) {
  const int nth = state.calls + 1 - state.first;
  const int due = nth >= 0 && nth < state.count ? state.action : 0;
  const char* number = strchr(shape, 'n');
  const int copied = state.action == KILL && state.calls == 0 && !IsVictim();
  if (copied || due == FAIL) {
    if (strncmp(name, "close", 5) == 0) CALL(real, a);  // one that reports an error has closed
    errno = copied ? EIO : state.error[nth > 0];
    return failure;
  }
  if (due == ZERO && number != NULL) {
    errno = state.error[0];
    return 0;
  }
  if (due == SHORT && number != NULL) a[number - shape] -= a[number - shape] / 2;
  const long result = CALL(real, a);
  if (due == KILL) raise(SIGKILL);
  return result;
}

// The code of the module. Found once: asking the loader at every call would take its lock, which in
// a victim may be held for ever by a thread that was not copied.
static uintptr_t module_start, module_end;

static int FindModule(struct dl_phdr_info* info, size_t size, void* unused) {
  (void)size, (void)unused;
  if (strstr(info->dlpi_name, "tarvek.node") == NULL) return 0;
  for (const ElfW(Phdr)* at = info->dlpi_phdr; at < info->dlpi_phdr + info->dlpi_phnum; ++at) {
    if (at->p_type != PT_LOAD || !(at->p_flags & PF_X)) continue;
    module_start = info->dlpi_addr + at->p_vaddr;
    module_end = module_start + at->p_memsz;
  }
  return 1;
}

static long Intercept(Function* real, const char* name, const char* shape, long failure, long* a,
                      uintptr_t caller) {
  const int counts = state.armed && caller >= module_start && caller < module_end;
  const long result = counts ? Act(real, name, shape, failure, a) : CALL(real, a);
  const int error = errno;
  if (counts) Record(name, shape, a, result);
  errno = error;
  return result;
}

// Fails while it looks for the real one: older C libraries call calloc there, and cope.
#define WRAP(name, shape, failure)                                                   \
  long Wrapped_##name(long, long, long, long, long, long) __asm__(#name);            \
  long Wrapped_##name(long a, long b, long c, long d, long e, long f) {              \
    static Function* real;                                                           \
    static _Thread_local int searching;                                              \
    if (real == NULL && searching++) return failure;                                 \
    if (real == NULL) real = (Function*)dlsym(RTLD_NEXT, #name);                     \
    long all[] = {a, b, c, d, e, f};                                                 \
    const uintptr_t caller = (uintptr_t)__builtin_return_address(0);                 \
    return Intercept(real, #name, shape, failure, all, caller);                      \
  }

WRAP(open, "si", -1)
WRAP(openat, "isi", -1)
WRAP(dup, "i", -1)
WRAP(close, "i", -1)
WRAP(fcntl, "ii", -1)
WRAP(fstat, "i", -1)
WRAP(__fxstat, "pi", -1)
WRAP(fstatat, "is", -1)
WRAP(__fxstatat, "pis", -1)
WRAP(mkdirat, "is", -1)
WRAP(unlinkat, "is", -1)
WRAP(renameat, "isis", -1)
WRAP(linkat, "isis", -1)
WRAP(symlinkat, "sis", -1)
WRAP(readlinkat, "ispn", -1)
WRAP(read, "ipn", -1)
WRAP(pread, "ipn", -1)
WRAP(write, "ibn", -1)
WRAP(fsync, "i", -1)
WRAP(getrandom, "pn", -1)
WRAP(syscall, "iisis", -1)
WRAP(fdopendir, "i", 0)
WRAP(readdir, "", 0)
WRAP(closedir, "", -1)
WRAP(calloc, "", 0)

int napi_create_external_arraybuffer(void*, void*, size_t, void*, void*, void**);

// Called once the module under test is there.
void* napi_register_module_v1(void* env, void* exports) {
  dl_iterate_phdr(FindModule, NULL);
  napi_create_external_arraybuffer(env, &state, sizeof state, NULL, NULL, &exports);
  return exports;
}
