// The floor: what the module's system calls cost by themselves. The table below lists the calls of
// each operation: the same ones in the same order with the same flags. Nothing is checked, no
// JavaScript value is made, and what the calls return stays in native memory. No module with the
// same guarantees can make its calls for less.
//
//   prepare(operation, rootFd, calls)   returns a plan; each of `calls` has the fields of a Call
//   run(plan, times)                    makes every call `times` times; returns how many bytes and
//                                       names were read
//
// A result is looked at only if the next call depends on it. bench/verify-floor.js proves that the
// calls are the module's.
//
// The bytes of a small file get a block of memory, which is kept until the operation is over: no
// module can return them with less. All larger files are read into the same memory, which is never
// new. A module needs memory for each result, and page faults in it are most of the difference
// between a large read and the floor. The floor leaves them out, because their number depends on
// what malloc has at hand: a floor with page faults is slower than a module that happens to have
// fewer.

#include <dirent.h>
#include <fcntl.h>
#include <node_api.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Path = std::vector<std::string>;
using Names = std::span<const std::string>;

struct Call {
  std::array<Path, 2> paths;
  std::string body;
  std::string linkText;  // of a symlink at the first path that leads to the second
  int candidate;
};

constexpr int kSafe = O_NOFOLLOW | O_CLOEXEC;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | kSafe;
constexpr int kFile = O_RDONLY | O_NONBLOCK | kSafe;
constexpr int kExclusive = O_WRONLY | O_CREAT | O_EXCL | kSafe;
constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | kSafe;
constexpr size_t kChunk = 64 * 1024;

constexpr size_t kSmall = 16 * 1024;

// What the calls return.
struct stat status;
std::vector<char> scratch(kChunk);
std::vector<std::unique_ptr<char[]>> smallFiles;

// Not through libc, which may turn fstat into a lookup of an empty name.
void FstatOf(int fd) { (void)::syscall(SYS_fstat, fd, &status); }

void LookAt(int dirFd, const std::string& name) {
  (void)::fstatat(dirFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
}

int OpenAt(int dirFd, const std::string& name, int flags) {
  return ::openat(dirFd, name.c_str(), flags, 0600);
}

// Up to the size that the latest fstat returned.
size_t ReadBytes(int fd) {
  const auto size = static_cast<size_t>(status.st_size);
  if (size == 0) return 0;
  if (size <= kSmall) {
    smallFiles.push_back(std::make_unique_for_overwrite<char[]>(size));
    return static_cast<size_t>(::read(fd, smallFiles.back().get(), size));
  }
  if (size > scratch.size()) scratch.resize(size);
  return static_cast<size_t>(::read(fd, scratch.data(), size));
}

void CompareBytes(int fd, const std::string& body) {
  for (size_t offset = 0; offset < body.size(); offset += kChunk) {
    const size_t wanted = std::min(kChunk, body.size() - offset);
    (void)!::pread(fd, scratch.data(), wanted, static_cast<off_t>(offset));
  }
  (void)!::pread(fd, scratch.data(), 1, static_cast<off_t>(body.size()));
}

// `visit` is called between two reads of the directory.
template <typename Visit>
void VisitNames(int dirFd, Visit visit) {
  DIR* stream = ::fdopendir(::dup(dirFd));
  while (const dirent* entry = ::readdir(stream)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") visit(name);
  }
  ::closedir(stream);
}

// Sorted: `list` returns them in this order, and the next calls follow it.
Path NamesIn(int dirFd) {
  Path names;
  VisitNames(dirFd, [&names](std::string_view name) { names.emplace_back(name); });
  std::sort(names.begin(), names.end());
  return names;
}

int Walk(int current, Names names) {
  for (const std::string& name : names) {
    const int next = OpenAt(current, name, kDirectory);
    FstatOf(next);
    LookAt(current, name);
    ::close(current);
    current = next;
  }
  return current;
}

void Validate(int root, Names names) {
  int current = ::dup(root);
  for (const std::string& name : names) {
    LookAt(current, name);
    const int next = OpenAt(current, name, kDirectory);
    ::close(current);
    current = next;
  }
  ::close(current);
}

void RemoveEntry(int dirFd, const std::string& name) {
  LookAt(dirFd, name);
  if (!S_ISDIR(status.st_mode)) {
    ::unlinkat(dirFd, name.c_str(), 0);
    return;
  }
  const int directory = OpenAt(dirFd, name, kDirectory);
  VisitNames(directory,
             [=](std::string_view child) { RemoveEntry(directory, std::string(child)); });
  ::fsync(directory);
  ::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR);
  ::close(directory);
}

// A whole file or directory. `capture` looks at it once more after reading.
size_t ReadEntry(int dirFd, const std::string& name, bool capture) {
  size_t count = 0;
  LookAt(dirFd, name);
  const bool isDirectory = S_ISDIR(status.st_mode);
  const int opened = OpenAt(dirFd, name, isDirectory ? kDirectory : kFile);
  FstatOf(opened);
  if (isDirectory) {
    for (const std::string& child : NamesIn(opened)) count += ReadEntry(opened, child, capture);
  } else {
    count = ReadBytes(opened);
  }
  if (capture) {
    FstatOf(opened);
    LookAt(dirFd, name);
  }
  ::close(opened);
  return count;
}

// A call in progress: the parent directories of both leaves, and what else is open.
struct State {
  const std::string& Leaf() const { return call.paths[0].back(); }
  const std::string& OtherLeaf() const { return call.paths[1].back(); }
  Names Above(size_t path) const {
    return Names(call.paths[path]).first(call.paths[path].size() - 1);
  }

  int root;
  const Call& call;
  int parent = -1;
  int other = -1;
  int file = -1;
  int handle = -1;
  std::string temp = {};
  size_t count = 0;
};

using Step = void (*)(State& at);

void Enter(State& at) { at.parent = Walk(::dup(at.root), at.Above(0)); }
void EnterOther(State& at) { at.other = Walk(::dup(at.root), at.Above(1)); }
void Prove(State& at) { Validate(at.root, at.Above(0)); }
void ProveOther(State& at) { Validate(at.root, at.Above(1)); }
void Look(State& at) { LookAt(at.parent, at.Leaf()); }
void LookOther(State& at) { LookAt(at.other, at.OtherLeaf()); }
void FlushParent(State& at) { ::fsync(at.parent); }
void FlushOther(State& at) { ::fsync(at.other); }
void Leave(State& at) { ::close(at.parent); }
void LeaveOther(State& at) { ::close(at.other); }

void OpenFile(State& at) { at.file = OpenAt(at.parent, at.Leaf(), kFile); }
void OpenToAppend(State& at) { at.file = OpenAt(at.parent, at.Leaf(), kAppend); }
void OpenDirectory(State& at) { at.file = OpenAt(at.parent, at.Leaf(), kDirectory); }
void CreateFile(State& at) { at.file = OpenAt(at.parent, at.Leaf(), kExclusive); }
void Fstat(State& at) { FstatOf(at.file); }
void Read(State& at) { at.count = ReadBytes(at.file); }
void ReadNames(State& at) { at.count = NamesIn(at.file).size(); }
void Compare(State& at) { CompareBytes(at.file, at.call.body); }
void Write(State& at) { (void)!::write(at.file, at.call.body.data(), at.call.body.size()); }
void FlushFile(State& at) { ::fsync(at.file); }
void CloseFile(State& at) { ::close(at.file); }
void Unlink(State& at) { ::unlinkat(at.parent, at.Leaf().c_str(), 0); }
void MakeDirectory(State& at) { ::mkdirat(at.parent, at.Leaf().c_str(), 0700); }

void CreateTemp(State& at) {
  (void)!::getrandom(scratch.data(), 16, 0);
  at.temp = ".tarvek-" + std::to_string(::getpid()) + "-0-floor";
  at.file = OpenAt(at.parent, at.temp, kExclusive);
}
void RenameTemp(State& at) { ::renameat(at.parent, at.temp.c_str(), at.parent, at.Leaf().c_str()); }
void Rename(State& at) {
  ::renameat(at.parent, at.Leaf().c_str(), at.other, at.OtherLeaf().c_str());
}
void MakeLink(State& at) {
  (void)!::symlinkat(at.call.linkText.c_str(), at.parent, at.Leaf().c_str());
}
void ReadLink(State& at) {
  const size_t length = at.call.linkText.size() + 1;
  (void)!::readlinkat(at.parent, at.Leaf().c_str(), scratch.data(), length);
}
void LookAtCandidate(State& at) {
  FstatOf(at.call.candidate);
  Look(at);
}
void CompareCandidate(State& at) { CompareBytes(at.call.candidate, at.call.body); }
void GetCandidateFlags(State& at) { ::fcntl(at.call.candidate, F_GETFL); }
void HardLink(State& at) {
  (void)!::linkat(at.parent, at.Leaf().c_str(), at.other, at.OtherLeaf().c_str(), 0);
}
void Remove(State& at) { RemoveEntry(at.parent, at.Leaf()); }
void Capture(State& at) { at.count = ReadEntry(at.parent, at.Leaf(), /*capture=*/true); }
void Snapshot(State& at) {
  for (const std::string& name : NamesIn(at.file)) at.count += ReadEntry(at.file, name, false);
}
void OpenSlash(State& at) { at.other = ::open("/", kDirectory); }
void WalkFromSlash(State& at) { at.file = Walk(at.other, at.call.paths[0]); }
void WalkFromRoot(State& at) { at.file = Walk(::dup(at.root), at.call.paths[0]); }
void ProveFromSlash(State& at) { Validate(at.other, at.call.paths[0]); }
void ProveFromRoot(State& at) { Validate(at.root, at.call.paths[0]); }
void MakeHandle(State& at) { at.handle = ::dup(at.file); }
void CloseHandle(State& at) { ::close(at.handle); }

// clang-format off
const std::map<std::string, std::vector<Step>> kOperations{
    {"openRoot", {OpenSlash, WalkFromSlash, OpenSlash, ProveFromSlash, Fstat, MakeHandle,
                  LeaveOther, CloseFile, CloseHandle}},
    {"openRelative", {WalkFromRoot, ProveFromRoot, Fstat, MakeHandle, CloseFile, CloseHandle}},
    {"exists", {Enter, Prove, Look, Leave}},
    {"read", {Enter, Prove, Look, OpenFile, Fstat, Read, CloseFile, Leave}},
    {"list", {Enter, Prove, OpenDirectory, Fstat, Look, ReadNames, CloseFile, Leave}},
    {"write", {Enter, Prove, Look, CreateTemp, Write, FlushFile, CloseFile, Prove, RenameTemp,
               FlushParent, Leave}},
    {"create", {Enter, Prove, Look, CreateFile, Write, FlushFile, FlushParent, CloseFile, Leave}},
    {"append", {Enter, Prove, Look, OpenToAppend, Fstat, Look, Write, FlushFile, FlushParent,
                CloseFile, Leave}},
    {"ensureDirectory", {Enter, Prove, Look, MakeDirectory, FlushParent, Leave}},
    {"ensureDirectory, existing", {Enter, Prove, Look, Leave}},
    {"ensureRelativeSymlink", {EnterOther, ProveOther, LookOther, LeaveOther, Enter, Prove, Look,
                               Prove, MakeLink, FlushParent, Leave}},
    {"ensureRelativeSymlink, existing", {EnterOther, ProveOther, LookOther, LeaveOther, Enter,
                                         Prove, Look, ReadLink, Leave}},
    {"remove", {Enter, Prove, Remove, FlushParent, Leave}},
    {"removeIfEquals", {Enter, Prove, Look, OpenFile, Fstat, Compare, Fstat, Look, Prove,
                        Unlink, FlushParent, CloseFile, Leave}},
    {"move", {Enter, EnterOther, Prove, ProveOther, Look, LookOther, Rename, FlushParent,
              FlushOther, LeaveOther, Leave}},
    {"publishVerified", {Enter, EnterOther, Prove, ProveOther, Prove, ProveOther,
                         GetCandidateFlags, LookAtCandidate, CompareCandidate, LookAtCandidate,
                         HardLink, LookOther, Unlink, FlushOther, FlushParent, LeaveOther, Leave}},
    {"capture", {Enter, Prove, Capture, Prove, Leave}},
    {"snapshot", {Enter, Prove, OpenDirectory, Fstat, Look, Snapshot, CloseFile, Leave}},
};
// clang-format on

struct Plan {
  std::vector<Step> steps;
  int root;
  std::vector<Call> calls;
};

template <size_t kCount>
std::array<napi_value, kCount> Arguments(napi_env env, napi_callback_info info) {
  std::array<napi_value, kCount> values{};
  size_t count = kCount;
  napi_get_cb_info(env, info, &count, values.data(), nullptr, nullptr);
  return values;
}

int Integer(napi_env env, napi_value value) {
  int32_t number = 0;
  napi_get_value_int32(env, value, &number);
  return number;
}

std::string Text(napi_env env, napi_value value) {
  size_t length = 0;
  napi_get_value_string_utf8(env, value, nullptr, 0, &length);
  std::string text(length, '\0');
  napi_get_value_string_utf8(env, value, text.data(), length + 1, &length);
  return text;
}

std::vector<napi_value> Elements(napi_env env, napi_value array) {
  uint32_t length = 0;
  napi_get_array_length(env, array, &length);
  std::vector<napi_value> elements(length);
  for (uint32_t index = 0; index < length; ++index) {
    napi_get_element(env, array, index, &elements[index]);
  }
  return elements;
}

Path Texts(napi_env env, napi_value array) {
  Path texts;
  for (napi_value text : Elements(env, array)) texts.push_back(Text(env, text));
  return texts;
}

napi_value Prepare(napi_env env, napi_callback_info info) {
  const auto [operation, root, calls] = Arguments<3>(env, info);
  auto plan = new Plan{kOperations.at(Text(env, operation)), Integer(env, root), {}};
  for (napi_value call : Elements(env, calls)) {
    const std::vector<napi_value> field = Elements(env, call);
    plan->calls.push_back({{Texts(env, field[0]), Texts(env, field[1])},
                           Text(env, field[2]),
                           Text(env, field[3]),
                           Integer(env, field[4])});
  }
  napi_value result = nullptr;
  const auto free = [](napi_env, void* data, void*) { delete static_cast<Plan*>(data); };
  napi_create_external(env, plan, free, nullptr, &result);
  return result;
}

napi_value Run(napi_env env, napi_callback_info info) {
  const auto [external, times] = Arguments<2>(env, info);
  void* data = nullptr;
  napi_get_value_external(env, external, &data);
  const auto plan = static_cast<const Plan*>(data);
  size_t count = 0;
  for (int left = Integer(env, times); left > 0; --left) {
    for (const Call& call : plan->calls) {
      State state{plan->root, call};
      for (const Step step : plan->steps) step(state);
      count += state.count;
      smallFiles.clear();
    }
  }
  napi_value result = nullptr;
  napi_create_double(env, static_cast<double>(count), &result);
  return result;
}

}  // namespace

NAPI_MODULE_INIT() {
  const auto define = [&](const char* name, napi_callback callback) {
    napi_value function = nullptr;
    napi_create_function(env, name, NAPI_AUTO_LENGTH, callback, nullptr, &function);
    napi_set_named_property(env, exports, name, function);
  };
  define("prepare", Prepare);
  define("run", Run);
  return exports;
}
