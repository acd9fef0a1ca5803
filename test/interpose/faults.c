// Stands between the module and libc. Records the module's system calls, and makes some of them
// fail, move fewer bytes, or report other values about a file. The test process preloads this
// library. It also loads it as an addon, to get an ArrayBuffer over the state below.

#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

// Two texts. Calls count only while there is a plan.
static struct {
  char plan[64];         // ACTION FIRST COUNT ERRNO ERRNO FIELD, see struct Plan
  char record[1 << 17];  // a line for each call: name, arguments, errno, with tabs between them
} state;

struct Plan {
  char action[16];  // nothing, fail, short, cut, zero or alter
  int first;        // the number of the first call that goes wrong, counted from 1
  int count;        // how many calls go wrong
  int error[2];     // errno of the first of them, and of the later ones
  char field[16];   // what `alter` changes in a struct stat
};

// All wrapped functions take at most seven arguments, integers or pointers. They are in registers,
// or the seventh has a fixed place on the stack, so one signature fits all.
typedef long Function(long, long, long, long, long, long, long);
#define CALL(function, a) function(a[0], a[1], a[2], a[3], a[4], a[5], a[6])

static size_t length;  // of the record
static int calls;      // so far
#define RECORD(...) length += (size_t)sprintf(state.record + length, __VA_ARGS__)

struct Flag {
  long value;
  const char* name;
};
#define FLAG(prefix, name) \
  { prefix##name, #name }

// The numbers differ between processors.
static const struct Flag kOpenFlags[] = {
    FLAG(O_, WRONLY),   FLAG(O_, RDWR),    FLAG(O_, CREAT),    FLAG(O_, EXCL),
    FLAG(O_, TRUNC),    FLAG(O_, APPEND),  FLAG(O_, NONBLOCK), FLAG(O_, DIRECTORY),
    FLAG(O_, NOFOLLOW), FLAG(O_, CLOEXEC), {0, NULL}};
static const struct Flag kAtFlags[] = {
    {AT_SYMLINK_NOFOLLOW, "NOFOLLOW"}, {AT_REMOVEDIR, "REMOVEDIR"}, {0, NULL}};

static void RecordFlags(long value, const struct Flag* flag) {
  const char* separator = "\t";
  for (; flag->name != NULL; ++flag) {
    if ((value & flag->value) == 0) continue;
    RECORD("%s%s", separator, flag->name);
    value -= flag->value;
    separator = "|";
  }
  if (value != 0 || *separator == '\t') RECORD("%s%#lo", separator, value);
}

// Records a descriptor as the path of its file.
static void RecordPath(int fd) {
  char link[32];
  char path[4096] = "nothing";
  sprintf(link, "/proc/self/fd/%d", fd);
  const ssize_t size = readlink(link, path, sizeof path - 1);
  if (size >= 0) path[size] = '\0';
  RECORD("\t%s", path);
}

// `shape` has a letter for each argument: d a descriptor, D a directory stream, s a string, b
// bytes if they are few, n a number of bytes, o the flags of an open, a the flags of another call,
// m a mode, i an integer, t a struct stat, p an argument that is not recorded. A star at the end
// means that the call returns a pointer.
static void Record(const char* name, const char* shape, const long* a) {
  RECORD("%s", name);
  for (int i = 0; shape[i] != '\0'; ++i) {
    const int number = (int)a[i];
    if (shape[i] == 'd') RecordPath(number);
    if (shape[i] == 'D') RecordPath(dirfd((DIR*)a[i]));
    if (shape[i] == 's') RECORD("\t%s", (const char*)a[i]);
    if (shape[i] == 'b') RECORD("\t\"%.*s\"", a[i + 1] < 64 ? (int)a[i + 1] : 0, (const char*)a[i]);
    if (shape[i] == 'n' || shape[i] == 'i') RECORD("\t%d", number);
    if (shape[i] == 'm') RECORD("\t%#o", (unsigned)number);
    if (shape[i] == 'o') RecordFlags(number, kOpenFlags);
    if (shape[i] == 'o' && (number & O_CREAT) != 0) RECORD("\t%#o", (unsigned)a[i + 1]);
    if (shape[i] == 'a') RecordFlags(number, kAtFlags);
  }
}

// Changes one field of what an fstat or fstatat reported.
static void AlterField(struct stat* result, const char* field) {
  const mode_t permissions = result->st_mode & (mode_t)~S_IFMT;
  const dev_t far = (dev_t)1 << 40;
#define FIELD(name, change)        \
  if (strcmp(field, #name) == 0) { \
    result->change;                \
    return;                        \
  }
  FIELD(device, st_dev += far)
  FIELD(inode, st_ino += far)
  FIELD(link, st_mode = S_IFLNK | permissions)
  FIELD(special, st_mode = S_IFIFO | permissions)
  FIELD(mode, st_mode ^= S_ISUID)
  FIELD(links, st_nlink += 1)
  FIELD(unlinked, st_nlink = 0)
  FIELD(smaller, st_size -= 1)
  FIELD(larger, st_size += 1)
  FIELD(negative, st_size = -1)
  FIELD(mtime, st_mtim.tv_sec += 1)
  FIELD(mtimeNs, st_mtim.tv_nsec += 1)
  FIELD(ctime, st_ctim.tv_sec += 1)
  FIELD(ctimeNs, st_ctim.tv_nsec += 1)
  abort();
}

// Alters the first result that the plan selects, and later results for the same file.
static void Alter(struct stat* result, const struct Plan* plan, int isFirst) {
  static ino_t altered;
  if (isFirst) altered = result->st_ino;
  if (result->st_ino == altered) AlterField(result, plan->field);
}

static int HasFailed(const char* shape, long result) {
  return strchr(shape, '*') ? result == 0 && errno != 0 : (int)result < 0;
}

static long Fail(Function* real, const char* name, const char* shape, const long* a, int error) {
  if (strncmp(name, "close", 5) == 0) CALL(real, a);  // a failing close still closes
  errno = error;
  return strchr(shape, '*') ? 0 : -1;
}

static struct Plan GetPlan(void) {
  struct Plan plan = {"nothing", 0, 0, {0, 0}, ""};
  sscanf(state.plan, "%15s %d %d %d %d %15s", plan.action, &plan.first, &plan.count, &plan.error[0],
         &plan.error[1], plan.field);
  return plan;
}

static long Act(Function* real, const char* name, const char* shape, long* a, struct Plan plan) {
  const int nth = ++calls - plan.first;
  const int isDue = nth >= 0 && nth < plan.count;
  const char* action = isDue ? plan.action : "nothing";
  const char* number = strchr(shape, 'n');
  const char* stat = strchr(shape, 't');
  if (strcmp(action, "cut") == 0) action = nth == 0 ? "short" : "fail";
  if (strcmp(action, "fail") == 0) return Fail(real, name, shape, a, plan.error[nth > 0]);
  if (strcmp(action, "zero") == 0 && number != NULL) {
    errno = plan.error[0];
    return 0;
  }
  if (strcmp(action, "short") == 0 && number != NULL) a[number - shape] -= a[number - shape] / 2;
  const long result = CALL(real, a);
  if (strcmp(action, "alter") == 0 && stat != NULL && (int)result == 0) {
    Alter((struct stat*)a[stat - shape], &plan, nth == 0);
  }
  // A successful call may leave any value in errno, so leave a wrong one. Except at the end of a
  // file or directory, and in unlinkat: the module's `write` reads an earlier errno after it.
  const int isEnd = result == 0 && strpbrk(shape, "n*") != NULL;
  if (!HasFailed(shape, result) && !isEnd && strcmp(name, "unlinkat") != 0) errno = ENOENT;
  return result;
}

// Whether this address is in the module's code.
static int IsModule(void* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0) return 0;
  const char* name = strrchr(info.dli_fname, '/');
  return name != NULL && strcmp(name, "/tarvek.node") == 0;
}

static long Intercept(Function* real, const char* name, const char* shape, long* a, void* from) {
  const int before = errno;
  if (state.plan[0] == '\0' || !IsModule(from)) return CALL(real, a);
  // The tests add hook points to the record between two calls.
  length = strlen(state.record);
  if (length == 0) calls = 0;
  Record(name, shape, a);
  const struct Plan plan = GetPlan();
  errno = before;
  const long result = Act(real, name, shape, a, plan);
  const int error = errno;
  const int isEntry = strcmp(name, "readdir") == 0 && result != 0;
  if (isEntry && ((struct dirent*)result)->d_name[0] == '.') RECORD("\tof . or ..");
  RECORD("\t%d\n", HasFailed(shape, result) ? error : 0);
  errno = error;
  return result;
}

int napi_create_external_arraybuffer(void*, void*, size_t, void*, void*, void**);

void* napi_register_module_v1(void* env, void* exports) {
  napi_create_external_arraybuffer(env, &state, sizeof state, NULL, NULL, &exports);
  return exports;
}

#define WRAP(name, shape)                                                       \
  long Wrapped_##name(long, long, long, long, long, long, long) __asm__(#name); \
  long Wrapped_##name(long a, long b, long c, long d, long e, long f, long g) { \
    static Function* real;                                                      \
    if (real == NULL) real = (Function*)dlsym(RTLD_NEXT, #name);                \
    long all[] = {a, b, c, d, e, f, g};                                         \
    return Intercept(real, #name, shape, all, __builtin_return_address(0));     \
  }

// clang-format off
WRAP(open, "so")        WRAP(openat, "dso")     WRAP(fcntl, "di")       WRAP(symlinkat, "sds")
WRAP(fstat, "dt")       WRAP(__fxstat, "pdt")   WRAP(fstatat, "dsta")   WRAP(__fxstatat, "pdsta")
WRAP(read, "dpn")       WRAP(pread, "dpni")     WRAP(write, "dbn")      WRAP(readlinkat, "dspn")
WRAP(dup, "d")          WRAP(close, "d")        WRAP(fsync, "d")        WRAP(getrandom, "pni")
WRAP(mkdirat, "dsm")    WRAP(unlinkat, "dsa")   WRAP(linkat, "dsdsa")   WRAP(renameat, "dsds")
WRAP(readdir, "D*")     WRAP(closedir, "D")     WRAP(fdopendir, "d*")   WRAP(malloc, "n*")
