#include "driver/clean_up.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <vector>

#include "cfgmgr/messages.h"
#include "object/clear_flags.h"
#include "object/path_files.h"
#include "object/temp_place.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"

namespace {

constexpr size_t kNamedAside = 20;  // objects left behind that messages name one by one

int failStep(const std::string &path, uint64_t ino, int rc, int code, int error) {
  userMessage(Message::kCleanUpStep, path, ino, rc, code, error);
  return rc;
}

Dir openDirectory(int at, const char *name) {
  const int fd = openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return nullptr;
  Dir dir(fdopendir(fd));
  if (!dir) close(fd);
  return dir;
}

// The next entry but "." and ".."; null and errno (0: end).
const dirent *nextEntry(const Dir &dir) {
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(dir.get());
    const std::string_view name = entry ? entry->d_name : "";
    if (name != "." && name != "..") return entry;
  }
}

// "_<ino>" and what follows it, as temporary locations are named.
bool parseTempName(std::string_view name, uint64_t *ino) {
  if (!name.starts_with('_')) return false;
  name.remove_prefix(1);
  return std::from_chars(name.data(), name.data() + name.size(), *ino).ec == std::errc();
}

// A directory that was moved back leaves a link to its place at its temporary location. Every other
// object with such a name belongs to the fileset, a link that was itself moved aside included: it still
// is inode <ino>.
bool isMoveRecord(const std::string &dir_path, std::string_view name, const struct stat &st) {
  if (!name.starts_with('_') || dir_path.find("MOVE_", settings.shareDir.size()) == std::string::npos)
    return false;
  uint64_t ino = 0;
  return !S_ISLNK(st.st_mode) || (parseTempName(name, &ino) && st.st_ino == ino);
}

// Removes what is below `path`.
int removeBelow(const Dir &dir, std::string &path, dev_t device) {
  const int fd = dirfd(dir.get());
  while (const dirent *entry = nextEntry(dir)) {
    PathName appended(path, entry->d_name);
    struct stat st;
    if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;
      return failStep(path, entry->d_ino, errno, 2, errno);
    }
    std::string dir_path = path;
    if (appended.ok()) cutPath(dir_path);
    // Neither an object of the fileset nor another fileset goes with the work directory.
    if (isMoveRecord(dir_path, entry->d_name, st) || st.st_dev != device)
      return failStep(path, st.st_ino, -1, 1, EEXIST);
    int rc = 0;
    if (S_ISDIR(st.st_mode)) {
      const Dir child = openDirectory(fd, entry->d_name);
      if (!child) return failStep(path, st.st_ino, errno, 0, errno);
      rc = removeBelow(child, path, device);
    }
    const int flags = S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0;
    if (rc == 0 && unlinkat(fd, entry->d_name, flags) != 0) rc = errno;
    if (rc != 0) return failStep(path, st.st_ino, rc, 2, rc > 0 ? rc : 0);
  }
  if (errno != 0) return failStep(path, 0, errno, 0, errno);
  return 0;
}

struct Aside {
  std::string path;
  uint64_t ino = 0;
  int error = 0;  // why it could not be put back
};

// Every object of the fileset in the MOVE_ directories. 0 or an errno.
int findAside(const std::string &work_dir, std::vector<Aside> *found) {
  const Dir top = openWorkList(work_dir);
  if (!top) return errno;
  while (const dirent *entry = nextEntry(top)) {
    if (!std::string_view(entry->d_name).starts_with("MOVE_")) continue;
    const std::string bucket_path = work_dir + "/" + entry->d_name;
    const Dir bucket = openDirectory(dirfd(top.get()), entry->d_name);
    if (!bucket) return errno;
    while (const dirent *object = nextEntry(bucket)) {
      struct stat st;
      if (fstatat(dirfd(bucket.get()), object->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
      if (!isMoveRecord(bucket_path, object->d_name, st)) continue;
      Aside aside{bucket_path + "/" + object->d_name};
      parseTempName(object->d_name, &aside.ino);
      found->push_back(aside);
    }
    if (errno != 0) return errno;
  }
  return errno;
}

// The deletion of a clone was decided before it was moved aside: it goes, and its space with it. 0 or
// an errno.
int removeClone(const std::string &path) {
  const int error =
      retryClearing(path, "", [&] { return kest_unlink(handles.activeFsP, path.c_str(), 0); });
  traceLog("cleanup: removed %s, err %d\n", path.c_str(), error);
  return error;
}

// 0 or an errno.
int putBack(const Aside &aside) {
  if (aside.path == cloneDeleteLocation(aside.ino)) return removeClone(aside.path);
  std::string destination;
  if (!readDestination(aside.ino, &destination)) return errno ? errno : EIO;
  const int error = retryClearing(aside.path, destination, [&] {
    return kest_rename_noreplace(handles.activeFsP, aside.path.c_str(), linkFree(destination).c_str(),
                                 0);
  });
  traceLog("cleanup: put back %s as %s, err %d\n", aside.path.c_str(), destination.c_str(), error);
  return error;
}

// Puts back what was moved aside: one object may be the parent of another's place, so as long as
// something moves. 0, ENOTEMPTY when something had to stay, or an errno.
int putAllBack(const std::string &work_dir) {
  for (;;) {
    std::vector<Aside> aside;
    if (const int error = findAside(work_dir, &aside)) return error;
    if (aside.empty()) return 0;
    bool moved = false;
    for (Aside &object : aside) {
      object.error = putBack(object);
      moved = moved || object.error == 0;
    }
    if (moved) continue;
    for (size_t i = 0; i < aside.size() && i < kNamedAside; ++i) {
      std::string destination;
      if (!readDestination(aside[i].ino, &destination)) destination = "?";
      userMessage(Message::kKeptAside, aside[i].path, destination, strerror(aside[i].error));
    }
    userMessage(Message::kWorkDirKept, work_dir, static_cast<int64_t>(aside.size()));
    return ENOTEMPTY;
  }
}

}  // namespace

int cleanup(const std::string &workDir, bool force) {
  std::string path = workDir;
  if (force) {
    if (const int rc = putAllBack(workDir)) return rc;
  }
  const Dir dir = openWorkList(workDir);
  struct stat st;
  if (!dir || fstat(dirfd(dir.get()), &st) != 0) return failStep(path, 0, errno, 0, errno);
  if (const int rc = removeBelow(dir, path, st.st_dev)) return rc;
  if (kest_rmdir(handles.activeFsP, workDir.c_str(), st.st_ino) != 0)
    return failStep(path, st.st_ino, errno, 0, errno);
  return 0;
}
