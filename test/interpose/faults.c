// Stands between the module and libc: makes calls fail, records them, kills the process half-way,
// or swaps two names behind the module's back. Preloaded into the test process, and loaded by it
// once more as an addon, an ArrayBuffer over the state below. Only calls that come out of the
// module's code while it is armed count.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

enum Action { NOTHING, FAIL, SHORT, ZERO, KILL, SWAP };

static struct {
  uint64_t start, end;           // the module's code
  int32_t armed;                 // set to 1 with all that follows
  int32_t first, count, action;  // what befalls which calls, counted from 1
  int32_t error[2];              // of the first call that fails, and of those after it
  int32_t calls, ended, length;  // made so far; how the victim or the swap ended; of the record
  char swapped[2][256];          // paths
  char record[1 << 16];          // a JSON array for each call: name, arguments, result
} state;

// All that is wrapped takes integers or pointers, up to seven of them. On x86-64 the first six
// travel in registers and the last one at a known place, whatever their types and number, so one
// signature serves for all.
typedef long Function(long, long, long, long, long, long, long);
#define CALL(function, a) function(a[0], a[1], a[2], a[3], a[4], a[5], a[6])

#define RECORD(...) state.length += sprintf(state.record + state.length, __VA_ARGS__)

// `shape` has a letter for each argument: i an integer, s a string, b bytes, n how many, p whatever
// is left out; behind them * where a pointer is returned.
static void Record(const char* name, const char* shape, const long* a, long result) {
  RECORD("[\"%s\"", name);
  for (int i = 0; shape[i] != '\0'; ++i) {
    if (shape[i] == 'i' || shape[i] == 'n') RECORD(",%d", (int)a[i]);
    if (shape[i] == 's') RECORD(",\"%s\"", (const char*)a[i]);
    if (shape[i] == 'b') RECORD(",\"%.*s\"", (int)a[i + 1], (const char*)a[i]);
  }
  RECORD(",%d]\n", (int)result);
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
  return waitpid(victim, &state.ended, 0), 0;
}

static long Act(Function* real, const char* name, const char* shape, long* a) {
  const int nth = ++state.calls - state.first;
  const int due = nth >= 0 && nth < state.count ? state.action : NOTHING;
  const char* number = strchr(shape, 'n');
  const int copied = state.action == KILL && state.calls == 1 && !IsVictim();
  if (copied || due == FAIL) {
    if (strncmp(name, "close", 5) == 0) CALL(real, a);  // one that reports an error has closed
    errno = copied ? EIO : state.error[nth > 0];
    return strchr(shape, '*') ? 0 : -1;
  }
  if (due == ZERO && number != NULL) {
    errno = state.error[0];
    return 0;
  }
  if (due == SHORT && number != NULL) a[number - shape] -= a[number - shape] / 2;
  if (due == SWAP) {
    const char *a = state.swapped[0], *b = state.swapped[1];
    state.ended = renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE);
  }
  const long result = CALL(real, a);
  if (due == KILL) raise(SIGKILL);
  return result;
}

static long Intercept(Function* real, const char* name, const char* shape, long* a, uint64_t from) {
  if (!state.armed || from < state.start || from >= state.end) return CALL(real, a);
  const long result = Act(real, name, shape, a);
  const int error = errno;
  Record(name, shape, a, result);
  errno = error;
  return result;
}

int napi_create_external_arraybuffer(void*, void*, size_t, void*, void*, void**);

void* napi_register_module_v1(void* env, void* exports) {
  napi_create_external_arraybuffer(env, &state, sizeof state, NULL, NULL, &exports);
  return exports;
}

// Fails while it looks for the real one: older C libraries call calloc there, and cope.
#define WRAP(name, shape)                                                             \
  long Wrapped_##name(long, long, long, long, long, long, long) __asm__(#name);       \
  long Wrapped_##name(long a, long b, long c, long d, long e, long f, long g) {       \
    static Function* real;                                                            \
    static _Thread_local int searching;                                               \
    if (real == NULL && searching++) return 0;                                        \
    if (real == NULL) real = (Function*)dlsym(RTLD_NEXT, #name);                      \
    long all[] = {a, b, c, d, e, f, g};                                               \
    return Intercept(real, #name, shape, all, (uint64_t)__builtin_return_address(0)); \
  }

// clang-format off
WRAP(open, "si")        WRAP(openat, "isi")     WRAP(fcntl, "ii")       WRAP(symlinkat, "sis")
WRAP(fstat, "i")        WRAP(__fxstat, "pi")    WRAP(fstatat, "is")     WRAP(__fxstatat, "pis")
WRAP(read, "ipn")       WRAP(pread, "ipn")      WRAP(write, "ibn")      WRAP(readlinkat, "ispn")
WRAP(dup, "i")          WRAP(close, "i")        WRAP(fsync, "i")        WRAP(getrandom, "pn")
WRAP(mkdirat, "is")     WRAP(unlinkat, "is")    WRAP(linkat, "isis")    WRAP(renameat, "isis")
WRAP(readdir, "*")      WRAP(closedir, "")      WRAP(fdopendir, "i*")
WRAP(syscall, "iisis")
