// Stands between the module and libc: records the module's calls, and makes one of them fail, move
// fewer bytes, or tell something else of a file. It is preloaded into the test process, which loads
// it once more as an addon: an ArrayBuffer over the state below. Only calls from the module's code
// count, and only while it is armed.

#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum Action { NOTHING, FAIL, SHORT, ZERO, ALTER };

static struct {
  uint64_t start, end;                  // the module's code
  int32_t armed, action, first, count;  // what happens to which calls, counted from 1
  int32_t error[2], field;              // of the first that fails and the others; what is altered
  int32_t calls, left, length;          // made so far; a descriptor left open; of the record
  char record[1 << 17];                 // a line for each call: name, arguments, errno, by tabs
} state = {.left = -1};

// All wrapped functions take integers or pointers, up to seven. On x86-64 the first six travel in
// registers and the last one at a known place, so one signature serves for all.
typedef long Function(long, long, long, long, long, long, long);
#define CALL(function, a) function(a[0], a[1], a[2], a[3], a[4], a[5], a[6])

#define RECORD(...) state.length += sprintf(state.record + state.length, __VA_ARGS__)
#define FLAG(is, word) \
  if (is) RECORD("%s" word, (many++ ? "|" : ""))

static void RecordOpenFlags(int flags) {
  int many = 0;
  FLAG((flags & O_ACCMODE) == O_RDONLY, "RDONLY");
  FLAG((flags & O_ACCMODE) == O_WRONLY, "WRONLY");
  FLAG((flags & O_ACCMODE) == O_RDWR, "RDWR");
  FLAG(flags & O_CREAT, "CREAT");
  FLAG(flags & O_EXCL, "EXCL");
  FLAG(flags & O_TRUNC, "TRUNC");
  FLAG(flags & O_APPEND, "APPEND");
  FLAG(flags & O_NONBLOCK, "NONBLOCK");
  FLAG(flags & O_DIRECTORY, "DIRECTORY");
  FLAG(flags & O_NOFOLLOW, "NOFOLLOW");
  FLAG(flags & O_CLOEXEC, "CLOEXEC");
}

static void RecordAtFlags(int flags) {
  int many = 0;
  FLAG(flags & AT_SYMLINK_NOFOLLOW, "NOFOLLOW");
  FLAG(flags & AT_REMOVEDIR, "REMOVEDIR");
  FLAG(flags & ~(AT_SYMLINK_NOFOLLOW | AT_REMOVEDIR), "OTHER");
  FLAG(!many, "0");
}

// A descriptor is told as the path that it is open on.
static void RecordPath(int fd) {
  char link[32];
  char path[4096] = "nothing";
  sprintf(link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length >= 0) path[length] = '\0';
  RECORD("%s", path);
}

// `shape` has a letter for each argument: d a descriptor, D a directory stream, s a string, b
// bytes, n how many, o and a the flags of open and of the calls in *at, m a mode, i an integer, t a
// struct stat, p whatever is left out; behind them * where a pointer is returned.
static void Record(const char* name, const char* shape, const long* a) {
  // Older C libraries have __fxstat in the place of fstat.
  if (strncmp(name, "__fx", 4) == 0)
    RECORD("f%s", name + strlen("__fx"));
  else
    RECORD("%s", name);
  for (int i = 0; shape[i] != '\0'; ++i) {
    if (strchr("pt*", shape[i])) continue;
    RECORD("\t");
    if (shape[i] == 'd') RecordPath((int)a[i]);
    if (shape[i] == 'D') RecordPath(dirfd((DIR*)a[i]));
    if (shape[i] == 's') RECORD("%s", (const char*)a[i]);
    if (shape[i] == 'b') RECORD("\"%.*s\"", (int)a[i + 1], (const char*)a[i]);
    if (shape[i] == 'n' || shape[i] == 'i') RECORD("%d", (int)a[i]);
    if (shape[i] == 'm') RECORD("%#o", (unsigned)a[i]);
    if (shape[i] == 'a') RecordAtFlags((int)a[i]);
    if (shape[i] == 'o') RecordOpenFlags((int)a[i]);
    if (shape[i] == 'o' && a[i] & O_CREAT) RECORD("\t%#o", (unsigned)a[i + 1]);
  }
}

// In the order of the names in faults.js. All of these are 64 bits wide, or far from an overflow.
static const struct {
  size_t field;
  int sets;
  int64_t value;
} kAlterations[] = {
    {offsetof(struct stat, st_dev), 0, 1l << 40}, {offsetof(struct stat, st_ino), 0, 1l << 40},
    {offsetof(struct stat, st_mode), 0, 04000},   {offsetof(struct stat, st_nlink), 0, 1},
    {offsetof(struct stat, st_nlink), 1, 0},      {offsetof(struct stat, st_size), 0, -1},
    {offsetof(struct stat, st_size), 0, 1},       {offsetof(struct stat, st_size), 1, -1},
    {offsetof(struct stat, st_mtim), 0, 1},       {offsetof(struct stat, st_mtim) + 8, 0, 1},
    {offsetof(struct stat, st_ctim), 0, 1},       {offsetof(struct stat, st_ctim) + 8, 0, 1},
};
static const mode_t kTypes[] = {S_IFLNK, S_IFIFO};

// From the first look that is due on, but only where it is of the same file.
static void Alter(struct stat* told, int isFirst) {
  static ino_t altered;
  const int type = state.field - (int)(sizeof kAlterations / sizeof kAlterations[0]);
  if (isFirst) altered = told->st_ino;
  if (told->st_ino != altered) return;
  if (type >= 0) {
    told->st_mode = (told->st_mode & ~(mode_t)S_IFMT) | kTypes[type];
    return;
  }
  int64_t* field = (int64_t*)((char*)told + kAlterations[state.field].field);
  *field = kAlterations[state.field].value + (kAlterations[state.field].sets ? 0 : *field);
}

static int Failed(const char* shape, long result) {
  return strchr(shape, '*') ? result == 0 && errno != 0 : (int)result < 0;
}

static long Act(Function* real, const char* name, const char* shape, long* a) {
  const int nth = ++state.calls - state.first;
  const int due = nth >= 0 && nth < state.count ? state.action : NOTHING;
  const char* number = strchr(shape, 'n');
  const char* told = strchr(shape, 't');
  if (due == FAIL) {
    if (strncmp(name, "close", 5) == 0) CALL(real, a);  // one that reports an error has closed
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
  if (due == ALTER && told != NULL && (int)result == 0)
    Alter((struct stat*)a[told - shape], nth == 0);
  // What a call that succeeds leaves there says nothing. The end of a file or a directory leaves it
  // alone, and so does an unlink, after which the errno of the failure that led there is read.
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
WRAP(fstat, "dt")       WRAP(__fxstat, "pdt")   WRAP(fstatat, "dsta")   WRAP(__fxstatat, "pdsta")
WRAP(read, "dpn")       WRAP(pread, "dpni")     WRAP(write, "dbn")      WRAP(readlinkat, "dspn")
WRAP(dup, "d")          WRAP(close, "d")        WRAP(fsync, "d")        WRAP(getrandom, "pni")
WRAP(mkdirat, "dsm")    WRAP(unlinkat, "dsa")   WRAP(linkat, "dsdsa")   WRAP(renameat, "dsds")
WRAP(readdir, "D*")     WRAP(closedir, "D")     WRAP(fdopendir, "d*")   WRAP(syscall, "idsdsi")
