#include "restore/clean_up.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "messages/messages.h"
#include "object/name_calls.h"
#include "object/places.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// Step codes in the messages about the removal.
enum CleanUpStep : int {
  kReadDirectory = 0,  // also if the work directory itself could not be removed
  kForeignObject = 1,  // the object belongs to the fileset or to another one
  kRemoveEntry = 2,
};

constexpr size_t kNamedAside = 20;  // messages name at most so many objects left behind

// `told`: the cause has been printed with the object that it belongs to.
Result failStep(const std::string &path, uint64_t ino, const Result &result, bool told = false) {
  userMessage(Message::kCleanUpStep, path, ino, result.rc, result.code, told ? 0 : result.err);
  if (!told) userMessage(Message::kFileError, path, strerror(result.err));
  return result;
}

Result openDirectory(int at, const char *name, Dir *dir) {
  UniqueFd fd(openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return failedErrno(0);
  dir->reset(fdopendir(fd.get()));
  if (!*dir) return failedErrno(0);
  (void)fd.release();  // the directory stream closes it
  return {};
}

// Returns true if the directory is a bucket of objects moved aside, or lies in one.
bool liesInBucket(const std::string &dir_path) {
  if (!inWorkDir(dir_path)) return false;
  const std::string_view name = nameInWorkDir(dir_path);
  return isBucketName(name.substr(0, name.find('/')));
}

// Returns true if the entry belongs to the fileset, so that it must never be deleted here. That is
// every object in a bucket whose name begins like that of a temporary location, with or without a
// number, except the link that a directory left when it went home. A user's link that was moved aside
// is recognised by its inode number.
bool isMovedObject(const std::string &dir_path, std::string_view name, const struct stat &st) {
  if (!isAsideName(name) || !liesInBucket(dir_path)) return false;
  return !S_ISLNK(st.st_mode) || parseAsideName(name) == st.st_ino;
}

Result removeBelow(const Dir &dir, std::string &path, dev_t device);

// `path` is that of the entry, or of its directory if the entry's path would be too long.
Result removeEntry(int dir_fd, const char *name, const struct stat &st, std::string &path,
                   dev_t device) {
  Result removed;
  if (S_ISDIR(st.st_mode)) {
    Dir child;
    if (Result r = openDirectory(dir_fd, name, &child); !r)
      return failStep(path, st.st_ino, r.at(kReadDirectory));
    removed = removeBelow(child, path, device);
  }
  if (removed) removed = called(unlinkat(dir_fd, name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0));
  if (removed) return {};
  (void)failStep(path, st.st_ino, removed.at(kRemoveEntry), removed.code == kForeignObject);
  return removed;
}

// Removes everything below `path`.
Result removeBelow(const Dir &dir, std::string &path, dev_t device) {
  const int fd = dirfd(dir.get());
  for (;;) {
    const dirent *entry = nullptr;
    if (Result r = nextEntry(dir, &entry); !r) return failStep(path, 0, r.at(kReadDirectory));
    if (!entry) return {};
    const std::string dir_path = path;
    const PathName appended(path, entry->d_name);
    struct stat st;
    if (Result r = called(fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW)); !r) {
      if (r.err == ENOENT) continue;
      return failStep(path, entry->d_ino, r.at(kRemoveEntry));
    }
    // The removal must not delete objects of the fileset, nor cross into another fileset.
    if (isMovedObject(dir_path, entry->d_name, st) || st.st_dev != device)
      return failStep(path, st.st_ino, failed(kForeignObject, EEXIST));
    if (Result r = removeEntry(fd, entry->d_name, st, path, device); !r) return r;
  }
}

struct Aside {
  std::string path;
  uint64_t ino = 0;    // or the id of a nested fileset
  Result result = {};  // why it could not be moved back
};

// Finds the objects of the fileset in one bucket.
Result findInBucket(int work_dir_fd, const char *name, const std::string &bucket_path,
                    std::vector<Aside> *found) {
  Dir bucket;
  if (Result r = openDirectory(work_dir_fd, name, &bucket); !r) return r;
  for (;;) {
    const dirent *object = nullptr;
    if (Result r = nextEntry(bucket, &object); !r || !object) return r;
    struct stat st;
    if (Result r = called(fstatat(dirfd(bucket.get()), object->d_name, &st, AT_SYMLINK_NOFOLLOW)); !r)
      return r;
    if (!isMovedObject(bucket_path, object->d_name, st)) continue;
    found->push_back({bucket_path + "/" + object->d_name, parseAsideName(object->d_name).value_or(0)});
  }
}

// Finds the objects of the fileset in all buckets.
Result findAside(const std::string &work_dir, std::vector<Aside> *found) {
  Dir top;
  if (Result r = openWorkList(work_dir, &top); !r) return r;
  for (;;) {
    const dirent *entry = nullptr;
    if (Result r = nextEntry(top, &entry); !r || !entry) return r;
    if (!isBucketName(entry->d_name)) continue;
    const std::string bucket_path = work_dir + "/" + entry->d_name;
    if (Result r = findInBucket(dirfd(top.get()), entry->d_name, bucket_path, found); !r) return r;
  }
}

bool isFileset(const Aside &aside) {
  return aside.path == filesetLocation(aside.ino);
}

Result recordedPlace(const Aside &aside, std::string *destination) {
  return isFileset(aside) ? readFilesetDestination(aside.ino, destination)
                          : readDestination(aside.ino, destination);
}

Result putBack(const Aside &aside) {
  // The deletion of a clone was decided before it was moved aside, so delete it, which also frees its
  // space.
  if (aside.path == cloneDeleteLocation(aside.ino)) {
    const Result removed = unlinkName(aside.path, 0);
    traceLog("cleanup: removed %s, err %d\n", aside.path.c_str(), removed.err);
    return removed;
  }
  std::string destination;
  if (Result r = recordedPlace(aside, &destination); !r) return r;
  const Result moved = isFileset(aside) ? moveFilesetHome(aside.path, destination, aside.ino)
                                        : renameBack(aside.path, destination);
  traceLog("cleanup: put back %s as %s, err %d\n", aside.path.c_str(), destination.c_str(), moved.err);
  return moved;
}

void nameKept(const std::vector<Aside> &aside, const std::string &work_dir) {
  for (size_t i = 0; i < aside.size() && i < kNamedAside; ++i) {
    std::string destination;
    if (!recordedPlace(aside[i], &destination)) destination = "?";
    userMessage(Message::kKeptAside, aside[i].path, destination, strerror(aside[i].result.err));
  }
  userMessage(Message::kWorkDirKept, work_dir, static_cast<int64_t>(aside.size()));
}

// Moves back the objects that were moved aside. One object can be the parent of another's place, so
// repeat while at least one moves. ENOTEMPTY if some cannot be moved.
Result putAllBack(const std::string &work_dir) {
  for (;;) {
    std::vector<Aside> aside;
    if (Result r = findAside(work_dir, &aside); !r || aside.empty()) return r;
    bool moved = false;
    for (Aside &object : aside) {
      object.result = putBack(object);
      moved = moved || object.result;
    }
    if (moved) continue;
    nameKept(aside, work_dir);
    return errnoResult(ENOTEMPTY);
  }
}

Result openTop(const std::string &work_dir, Dir *dir, struct stat *st) {
  if (Result r = openWorkList(work_dir, dir); !r) return r;
  return called(fstat(dirfd(dir->get()), st));
}

}  // namespace

Result cleanup(const std::string &workDir, bool force) {
  if (force)
    if (Result r = putAllBack(workDir); !r) return r;
  std::string path = workDir;
  Dir dir;
  struct stat st;
  if (Result r = openTop(workDir, &dir, &st); !r) return failStep(path, 0, r.at(kReadDirectory));
  if (Result r = removeBelow(dir, path, st.st_dev); !r) return r;
  if (Result r = called(kest_rmdir(handles.activeFsP, workDir.c_str(), st.st_ino)); !r)
    return failStep(path, st.st_ino, r.at(kReadDirectory));
  return {};
}
