#include "run/work_dir.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "messages/messages.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"

std::string workPath(std::string_view name) {
  if (name.starts_with('/')) return std::string(name);
  std::string path = settings.shareDir;
  if (!appendPath(path, name)) path.clear();
  return path;
}

std::string_view nameInWorkDir(std::string_view path) {
  return path.substr(settings.shareDir.size() + 1);
}

bool inWorkDir(std::string_view path) {
  const std::string &dir = settings.shareDir;
  return !dir.empty() && path.size() > dir.size() && path[dir.size()] == '/' && path.starts_with(dir);
}

std::string bucketDir(uint64_t ino) {
  return workPath(bucketName(ino));
}
std::string tempLocation(uint64_t ino) {
  return workPath(tempLocationName(ino));
}
std::string cloneDeleteLocation(uint64_t ino) {
  return workPath(cloneDeleteLocationName(ino));
}
std::string destinationFile(uint64_t ino) {
  return workPath(destinationName(ino));
}
std::string newParentFile(uint64_t ino) {
  return workPath(newParentName(ino));
}
std::string filesetLocation(uint64_t id) {
  return workPath(filesetLocationName(id));
}
std::string filesetDestination(uint64_t id) {
  return workPath(filesetDestinationName(id));
}
std::string dirSet(uint64_t ino, bool deleted) {
  return workPath(dirSetName(ino, deleted));
}
std::string dirSetList(uint64_t ino, bool deleted, int depth) {
  return workPath(dirSetListName(ino, deleted, depth));
}
std::string dirSetMoveList(uint64_t ino, bool deleted, int depth) {
  return workPath(dirSetMoveListName(ino, deleted, depth));
}
std::string cloneList(int depth) {
  return workPath(cloneListName(depth));
}
std::string cloneDeleteList(int depth) {
  return workPath(cloneDeleteListName(depth));
}
std::string checkpointFile(int32_t caller_pid, const std::string &host, int32_t pid) {
  return workPath(checkpointName(caller_pid, host, pid));
}

namespace {

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

struct WorkDirectory {
  std::string path;
  UniqueFd fd;
  struct stat st {};
};
WorkDirectory work;

bool isOursAlone(const struct stat &st) {
  return st.st_uid == geteuid() && (st.st_mode & kOthersWrite) == 0;
}

// Prints the message once for each directory: every call on a file in it would repeat it.
Result refuse() {
  static std::string reported;
  if (reported != settings.shareDir) userMessage(Message::kForeignWorkDir, settings.shareDir);
  reported = settings.shareDir;
  return errnoResult(EPERM);
}

// The place at which a system call works: a directory and a name in it.
struct NameAt {
  int dir = AT_FDCWD;
  std::string name;
  UniqueFd opened;  // the directory, if locate had to open it
};

int openBelow(int dir, const std::string &path, int flags) {
  struct open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  // RESOLVE_NO_XDEV: a mount inside the work directory must not lead out of it.
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  return static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how));
}

Result locate(const std::string &path, NameAt *at) {
  if (!inWorkDir(path)) {
    at->name = path;
    return {};
  }
  if (Result r = openWorkDirectory(); !r) return r;
  // Open the directories on the way beneath the work directory; only the last component is left to the
  // call.
  std::string rest(nameInWorkDir(path));
  const size_t slash = rest.rfind('/');
  at->dir = work.fd.get();
  if (slash != std::string::npos) {
    at->opened.reset(openBelow(work.fd.get(), rest.substr(0, slash), O_PATH | O_DIRECTORY));
    if (!at->opened) return failedErrno(0);
    at->dir = at->opened.get();
    rest.erase(0, slash + 1);
  }
  at->name = std::move(rest);
  return {};
}

}  // namespace

Result openWorkDirectory() {
  if (work.fd && work.path == settings.shareDir) return {};
  closeWorkDirectory();
  UniqueFd fd(open(settings.shareDir.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno == ELOOP || errno == ENOTDIR ? refuse() : failedErrno(0);
  const char *inherited = getenv(kWorkDirectoryVariable);
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !isOursAlone(st) ||
      (inherited != nullptr && inherited != directoryIdentity(st)))
    return refuse();
  work = {settings.shareDir, std::move(fd), st};
  return {};
}

void closeWorkDirectory() {
  work = WorkDirectory();
}

int workDirectoryDescriptor() {
  return work.fd.get();
}

void forgetInheritedDirectory() {
  unsetenv(kWorkDirectoryVariable);
}

void exportWorkDirectory() {
  setenv(kWorkDirectoryVariable, directoryIdentity(work.st).c_str(), 1);
}

bool youngerThanWorkDirectory(uint64_t ino) {
  return openWorkDirectory() && kest_younger(handles.activeFsP, ino, work.st.st_ino) == 1;
}

Result openWorkFile(const std::string &path, int flags, UniqueFd *fd, mode_t mode) {
  NameAt at;
  if (path.empty()) return errnoResult(ENAMETOOLONG);
  if (Result r = locate(path, &at); !r) return r;
  fd->reset(openat(at.dir, at.name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!*fd) return failedErrno(0);
  if (at.dir != AT_FDCWD || (flags & O_ACCMODE) != O_RDONLY) return {};
  // A list outside the work directory could hold records that another user has planted.
  struct stat st;
  if (fstat(fd->get(), &st) == 0 && isOursAlone(st)) return {};
  fd->reset();
  return errnoResult(EPERM);
}

Result statWorkFile(const std::string &path, struct stat *st) {
  NameAt at;
  if (Result r = locate(path, &at); !r) return r;
  return called(fstatat(at.dir, at.name.c_str(), st, AT_SYMLINK_NOFOLLOW));
}

Result unlinkWorkFile(const std::string &path) {
  NameAt at;
  if (Result r = locate(path, &at); !r) return r;
  return called(unlinkat(at.dir, at.name.c_str(), 0));
}

Result renameWorkFile(const std::string &from, const std::string &to) {
  NameAt source, target;
  if (Result r = locate(from, &source); !r) return r;
  if (Result r = locate(to, &target); !r) return r;
  return called(renameat(source.dir, source.name.c_str(), target.dir, target.name.c_str()));
}

Result makeWorkDirectory(const std::string &path) {
  NameAt at;
  if (Result r = locate(path, &at); !r) return r;
  const Result r = called(mkdirat(at.dir, at.name.c_str(), kWorkDirMode));
  return r.err == EEXIST ? Result{} : r;
}

Result openWorkList(const std::string &path, Dir *dir) {
  UniqueFd fd;
  if (path == settings.shareDir) {
    if (Result r = openWorkDirectory(); !r) return r;
    fd.reset(openBelow(work.fd.get(), ".", O_RDONLY | O_DIRECTORY));
    if (!fd) return failedErrno(0);
  } else if (Result r = openWorkFile(path, O_RDONLY | O_DIRECTORY, &fd); !r) {
    return r;
  }
  dir->reset(fdopendir(fd.get()));
  if (!*dir) return failedErrno(0);
  fd.release();
  return {};
}

Result nextEntry(const Dir &dir, const dirent **entry) {
  for (;;) {
    errno = 0;
    *entry = readdir(dir.get());
    if (*entry == nullptr) return errnoResult(errno);
    const std::string_view name = (*entry)->d_name;
    if (name != "." && name != "..") return {};
  }
}
