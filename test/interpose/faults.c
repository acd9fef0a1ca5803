// Stands between the module and libc. Records the module's system calls, and makes some of them
// fail, move fewer bytes, or report other values about a file. The test process preloads this
// library. It also loads it as an addon, to get an ArrayBuffer over the state below. Calls count
// only while `armed` is set, and only if the module's code makes them.

#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum Action { NOTHING, FAIL, SHORT, ZERO, ALTER };

static struct {
  uint64_t start, end;                  // the module's code
  int64_t field, keep, add;             // a field of struct stat: its offset, how to alter it
  int32_t armed, action, first, count;  // what goes wrong, and at which calls, counted from 1
  int32_t error[2];                     // errno of the first failing call, and of later ones
  int32_t calls, left, length;          // calls so far; a descriptor left open; record size
  char record[1 << 17];                 // a line for each call: name, arguments, errno
} state;

// All wrapped functions take at most seven arguments, integers or pointers. On x86-64 the first six
// are in registers and the seventh has a fixed place on the stack, so one signature fits all.
typedef long Function(long, long, long, long, long, long, long);
#define CALL(function, a) function(a[0], a[1], a[2], a[3], a[4], a[5], a[6])

#define RECORD(...) state.length += sprintf(state.record + state.length, __VA_ARGS__)

// Records a descriptor as the path of its file.
static void RecordPath(int fd) {
  char link[32];
  char path[4096] = "nothing";
  sprintf(link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length >= 0) path[length] = '\0';
  RECORD("\t%s", path);
}

// `shape` has a letter for each argument: d a descriptor, D a directory stream, s a string, b
// bytes, n a number of bytes, o the flags of an open, m a mode, i an integer, t a struct stat, p an
// argument that is not recorded. A star at the end means that the call returns a pointer.
static void Record(const char* name, const char* shape, const long* a) {
  RECORD("%s", name);
  for (int i = 0; shape[i] != '\0'; ++i) {
    if (shape[i] == 'd') RecordPath((int)a[i]);
    if (shape[i] == 'D') RecordPath(dirfd((DIR*)a[i]));
    if (shape[i] == 's') RECORD("\t%s", (const char*)a[i]);
    if (shape[i] == 'b') RECORD("\t\"%.*s\"", (int)a[i + 1], (const char*)a[i]);
    if (strchr("nio", shape[i])) RECORD("\t%d", (int)a[i]);
    if (shape[i] == 'm') RECORD("\t%#o", (unsigned)a[i]);
    if (shape[i] == 'o' && a[i] & O_CREAT) RECORD("\t%#o", (unsigned)a[i + 1]);
  }
}

// Alters the first result that the plan selects, and later results for the same file.
static void Alter(struct stat* result, int isFirst) {
  static ino_t altered;
  if (isFirst) altered = result->st_ino;
  if (result->st_ino != altered) return;
  int64_t* field = (int64_t*)((char*)result + state.field);
  *field = (*field & state.keep) + state.add;
}

static int Failed(const char* shape, long result) {
  return strchr(shape, '*') ? result == 0 && errno != 0 : (int)result < 0;
}

static long Act(Function* real, const char* name, const char* shape, long* a) {
  const int nth = ++state.calls - state.first;
  const int due = nth >= 0 && nth < state.count ? state.action : NOTHING;
  const char* number = strchr(shape, 'n');
  const char* stat = strchr(shape, 't');
  if (due == FAIL) {
    if (strncmp(name, "close", 5) == 0) CALL(real, a);  // a failing close still closes
    if (strcmp(name, "fdopendir") == 0) state.left = (int)a[0];
    errno = state.error[nth > 0];
    return strchr(shape, '*') ? 0 : -1;
  }
  if (due == ZERO && number != NULL) {
    errno = state.error[0];
    return 0;
  }
  if (due == SHORT && number != NULL) a[number - shape] -= a[number - shape] / 2;
  const long result = CALL(real, a);
  if (due == ALTER && stat != NULL && (int)result == 0) Alter((struct stat*)a[stat - shape], !nth);
  // A successful call may leave any value in errno, so leave a wrong one. Except at the end of a
  // file or directory, and in unlinkat: after it, write reads the errno of an earlier failure.
  const int isEnd = result == 0 && strpbrk(shape, "n*") != NULL;
  if (!Failed(shape, result) && !isEnd && strcmp(name, "unlinkat") != 0) errno = ENOENT;
  return result;
}

static long Intercept(Function* real, const char* name, const char* shape, long* a, uint64_t from) {
  if (!state.armed || from < state.start || from >= state.end) return CALL(real, a);
  const int before = errno;
  Record(name, shape, a);
  errno = before;
  const long result = Act(real, name, shape, a);
  const int error = errno;
  const int isEntry = strcmp(name, "readdir") == 0 && result != 0;
  if (isEntry && ((struct dirent*)result)->d_name[0] == '.') RECORD("\tof . or ..");
  RECORD("\t%d\n", Failed(shape, result) ? error : 0);
  errno = error;
  return result;
}

int napi_create_external_arraybuffer(void*, void*, size_t, void*, void*, void**);

void* napi_register_module_v1(void* env, void* exports) {
  napi_create_external_arraybuffer(env, &state, sizeof state, NULL, NULL, &exports);
  return exports;
}

#define WRAP(name, shape)                                                             \
  long Wrapped_##name(long, long, long, long, long, long, long) __asm__(#name);       \
  long Wrapped_##name(long a, long b, long c, long d, long e, long f, long g) {       \
    static Function* real;                                                            \
    if (real == NULL) real = (Function*)dlsym(RTLD_NEXT, #name);                      \
    long all[] = {a, b, c, d, e, f, g};                                               \
    return Intercept(real, #name, shape, all, (uint64_t)__builtin_return_address(0)); \
  }

// clang-format off
WRAP(open, "so")        WRAP(openat, "dso")     WRAP(fcntl, "di")       WRAP(symlinkat, "sds")
WRAP(fstat, "dt")       WRAP(__fxstat, "pdt")   WRAP(fstatat, "dsti")   WRAP(__fxstatat, "pdsti")
WRAP(read, "dpn")       WRAP(pread, "dpni")     WRAP(write, "dbn")      WRAP(readlinkat, "dspn")
WRAP(dup, "d")          WRAP(close, "d")        WRAP(fsync, "d")        WRAP(getrandom, "pni")
WRAP(mkdirat, "dsm")    WRAP(unlinkat, "dsi")   WRAP(linkat, "dsdsi")   WRAP(renameat, "dsds")
WRAP(readdir, "D*")     WRAP(closedir, "D")     WRAP(fdopendir, "d*")   WRAP(syscall, "idsdsi")
