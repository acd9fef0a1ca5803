// capture: reads whole subtrees into memory, one record for each directory and regular file, and
// fails if one of them changes while it is read.
//
// The metadata of a file is looked at four times: by name before the open, by descriptor after it,
// by descriptor after the reading, and by name again. Each look is compared with the one before. A
// directory is looked at in the same way before and after everything beneath it, so a created,
// removed or renamed entry is detected. The directories above are validated before and after.
// Symlinks, files with further hard links, special files and a file that was already captured are
// refused.
//
// Left open on purpose: a change that is undone between two looks, times included, is not detected.
// A file can also change after its last look, while the rest is read.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "addon/error.h"
#include "addon/hook.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"
#include "confine/directory.h"
#include "confine/file_buffer.h"
#include "confine/levels.h"
#include "confine/parent.h"
#include "tree/identity_set.h"

namespace tarvek {

namespace {

constexpr uint32_t kPermissionBits = 0777;

struct CaptureEntry {
  std::string path;  // relative to the root, "/" between the names
  uint32_t mode;     // the whole st_mode
  bool directory;
  FileBody body;  // empty for a directory
};

// The results of one call so far, over all of its paths.
struct Captured {
  IdentitySet identities;             // of the files
  std::vector<CaptureEntry> entries;  // a directory before what is in it
};

// A directory whose contents are being captured. `name` is the leaf, or points into `names` of the
// level above, and outlives this level.
struct CaptureLevel {
  int containingFd;  // the directory that `name` is in
  const char* name;
  Descriptor directory;
  struct stat opened;
  size_t entry;  // its index in Captured::entries
  Names names;
  size_t next = 0;  // the first of `names` not yet captured
};

// The last two looks at an open object: by descriptor, then by name.
bool LookAgain(napi_env env, int fd, int containingFd, const char* name, struct stat* after,
               struct stat* again) {
  if (::fstat(fd, after) != 0) return RefuseErrno(env, errno);
  if (::fstatat(containingFd, name, again, AT_SYMLINK_NOFOLLOW) != 0) {
    return RefuseErrno(env, errno);
  }
  return true;
}

bool CaptureFile(napi_env env, int dirFd, const char* name, std::string path,
                 const struct stat& named, Captured* captured) {
  if (named.st_nlink != 1) return Refuse(env, kSourceIsHardLinked);
  const Descriptor file(::openat(dirFd, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!file.IsOpen()) return RefuseErrno(env, errno);
  struct stat opened;
  if (::fstat(file.Get(), &opened) != 0) return RefuseErrno(env, errno);
  // A broken file system could report a negative size, which must not become an allocation.
  if (!IsSoleFile(opened) || !SameStableMetadata(named, opened) || opened.st_size < 0) {
    return Refuse(env, kSourceReplaced);
  }
  if (captured->identities.Contains(IdentityOf(opened))) return Refuse(env, kSourceDuplicated);

  FileBody body;
  if (!ReadFileBody(env, file.Get(), opened.st_size, &body)) return false;
  if (!Hook(env, "capture-file-read", path, 0)) return false;
  struct stat after;
  struct stat again;
  if (!LookAgain(env, file.Get(), dirFd, name, &after, &again)) return false;
  if (!IsSoleFile(again) || !SameStableMetadata(opened, after) ||
      !SameStableMetadata(after, again) || static_cast<size_t>(after.st_size) != body.length) {
    return Refuse(env, kSourceChanged);
  }
  captured->identities.Insert(IdentityOf(opened));
  captured->entries.push_back({std::move(path), opened.st_mode, false, std::move(body)});
  return true;
}

bool EnterDirectory(napi_env env, int dirFd, const char* name, std::string path,
                    const struct stat& named, Captured* captured, Levels<CaptureLevel>* levels) {
  Descriptor directory = OpenDirectoryAt(dirFd, name);
  if (!directory.IsOpen()) return RefuseErrno(env, errno);
  // Required: a failing fstat counts as a replaced directory here, while CaptureFile throws what
  // its errno maps to. O_DIRECTORY admits no other type, which is checked all the same.
  struct stat opened;
  if (::fstat(directory.Get(), &opened) != 0 || !S_ISDIR(opened.st_mode) ||
      !SameStableMetadata(named, opened)) {
    return Refuse(env, kSourceDirectoryReplaced);
  }
  const size_t entry = captured->entries.size();
  captured->entries.push_back({std::move(path), opened.st_mode, true, {}});
  Names names;
  if (!ReadNames(env, directory.Get(), &names)) return false;
  levels->Push({dirFd, name, std::move(directory), opened, entry, std::move(names)});
  return true;
}

// Call after everything beneath the directory has been captured.
bool ConfirmDirectory(napi_env env, const CaptureLevel& level, const Captured& captured) {
  if (!Hook(env, "capture-directory-read", captured.entries[level.entry].path, 0)) return false;
  struct stat after;
  struct stat again;
  if (!LookAgain(env, level.directory.Get(), level.containingFd, level.name, &after, &again)) {
    return false;
  }
  if (!S_ISDIR(again.st_mode) || !SameStableMetadata(level.opened, after) ||
      !SameStableMetadata(after, again)) {
    return Refuse(env, kSourceDirectoryChanged);
  }
  return true;
}

// Captures a file, or pushes a new level for a directory.
bool CaptureOrEnter(napi_env env, int dirFd, const char* name, std::string path,
                    const struct stat& named, Captured* captured, Levels<CaptureLevel>* levels) {
  switch (named.st_mode & S_IFMT) {
    case S_IFLNK:
      return Refuse(env, kSourceIsLink);
    case S_IFREG:
      return CaptureFile(env, dirFd, name, std::move(path), named, captured);
    case S_IFDIR:
      return EnterDirectory(env, dirFd, name, std::move(path), named, captured, levels);
    default:
      return Refuse(env, kSourceIsSpecial);
  }
}

// In one allocation; with operator+ it would take two for every entry.
std::string ChildPath(const std::string& directory, const char* name) {
  const size_t length = std::strlen(name);
  std::string path;
  path.reserve(directory.size() + 1 + length);
  return path.append(directory).append(1, '/').append(name, length);
}

// Captures one object, and everything beneath it if it is a directory. `named` is the latest stat
// of its name. Returns false after throwing.
bool CaptureNode(napi_env env, int dirFd, const char* name, std::string path,
                 const struct stat& named, Captured* captured) {
  Levels<CaptureLevel> levels;
  if (!CaptureOrEnter(env, dirFd, name, std::move(path), named, captured, &levels)) return false;
  while (!levels.Empty()) {
    CaptureLevel& level = levels.Top();
    if (level.next == level.names.sorted.size()) {
      if (!ConfirmDirectory(env, level, *captured)) return false;
      levels.Pop();
      continue;
    }
    const char* child = level.names.sorted[level.next++];
    const int containingFd = level.directory.Get();
    struct stat status;
    if (::fstatat(containingFd, child, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return RefuseErrno(env, errno);
    }
    std::string childPath = ChildPath(captured->entries[level.entry].path, child);
    if (!CaptureOrEnter(env, containingFd, child, std::move(childPath), status, captured,
                        &levels)) {
      return false;
    }
  }
  return true;
}

bool CapturePath(napi_env env, const Root& root, const Segments& segments, Captured* captured) {
  Parent parent;
  if (!OpenParent(env, root, segments, /*create=*/false, &parent)) return false;
  if (!PreEffect(env, root, parent, segments)) return false;
  const char* leaf = segments.back().c_str();
  struct stat named;
  if (::fstatat(parent.fd.Get(), leaf, &named, AT_SYMLINK_NOFOLLOW) != 0) {
    return RefuseErrno(env, errno);
  }
  if (!CaptureNode(env, parent.fd.Get(), leaf, JoinSegments(segments), named, captured)) {
    return false;
  }
  return ChainHolds(root, parent) || Refuse(env, kOutOfRoot);
}

// Converts every element before anything is opened. Returns false if one is refused.
bool GetPaths(napi_env env, napi_value value, std::vector<Segments>* paths) {
  uint32_t count = 0;
  if (!GetElementCount(env, value, &count)) return false;
  for (uint32_t index = 0; index < count; ++index) {
    napi_value element = nullptr;
    napi_get_element(env, value, index, &element);
    Segments segments;
    if (!GetSegments(env, element, &segments)) return false;
    paths->push_back(std::move(segments));
  }
  return true;
}

// The strings that all records share. They serve as keys too: a key given as C text would be
// converted to a string again for each property.
struct RecordTexts {
  explicit RecordTexts(napi_env env)
      : path(String(env, "path")),
        type(String(env, "type")),
        mode(String(env, "mode")),
        body(String(env, "body")),
        directory(String(env, "directory")),
        file(String(env, "file")) {}

  napi_value path;
  napi_value type;
  napi_value mode;
  napi_value body;
  napi_value directory;
  napi_value file;
};

napi_value Record(napi_env env, const RecordTexts& texts, const CaptureEntry& entry) {
  napi_value record = nullptr;
  napi_value mode = nullptr;
  napi_create_object(env, &record);
  napi_create_uint32(env, entry.mode & kPermissionBits, &mode);
  napi_set_property(env, record, texts.path, String(env, entry.path));
  napi_set_property(env, record, texts.type, entry.directory ? texts.directory : texts.file);
  napi_set_property(env, record, texts.mode, mode);
  if (!entry.directory) napi_set_property(env, record, texts.body, BodyBuffer(env, entry.body));
  return record;
}

// Makes the records after the whole walk: a setter that the program has put on Object.prototype
// runs when a record is made, and must not run between two looks. Frees the native bytes of each
// entry at once, so that small files are not held twice.
napi_value RecordArray(napi_env env, std::vector<CaptureEntry>* entries) {
  const RecordTexts texts(env);
  napi_value result = nullptr;
  napi_create_array_with_length(env, entries->size(), &result);
  uint32_t index = 0;
  for (CaptureEntry& entry : *entries) {
    const HandleScope scope(env);
    napi_set_element(env, result, index++, Record(env, texts, entry));
    entry.body = {};
  }
  return result;
}

}  // namespace

napi_value Capture(napi_env env, napi_callback_info info) {
  const CallArguments<2> call(env, info);
  const Root* root = call.count == 2 ? GetRoot(env, call.values[0]) : nullptr;
  std::vector<Segments> paths;
  if (root == nullptr || !GetPaths(env, call.values[1], &paths)) return Throw(env, kOutOfRoot);
  Captured captured;
  for (const Segments& segments : paths) {
    if (!CapturePath(env, *root, segments, &captured)) return nullptr;
  }
  return RecordArray(env, &captured.entries);
}

}  // namespace tarvek
