#include "run/work_access.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "cfgmgr/messages.h"
#include "run/descriptor.h"
#include "run/settings.h"
#include "run/work_dir.h"

namespace {

constexpr char kIdentityVariable[] = "FSETRESTORE_WORK_DIRECTORY";
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

struct WorkDirectory {
  std::string path;
  Descriptor fd;
  struct stat st {};
};
WorkDirectory work;

bool mineAlone(const struct stat &st) {
  return st.st_uid == geteuid() && (st.st_mode & kOthersWrite) == 0;
}

int refused() {
  static std::string told;
  if (told != settings.shareDir) userMessage(Message::kForeignWorkDir, settings.shareDir);
  told = settings.shareDir;
  return EPERM;
}

// Where a call works: a directory and a name in it.
struct Place {
  int dir = AT_FDCWD;
  std::string name;
  Descriptor opened;  // the directory, where it had to be opened
};

int openBelow(int dir, const std::string &path, int flags) {
  struct open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  return static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how));
}

// 0, or -1 and errno.
int locate(const std::string &path, Place *place) {
  if (!inWorkDir(path)) {
    place->name = path;
    return 0;
  }
  if (const int err = openWorkDirectory()) {
    errno = err;
    return -1;
  }
  std::string rest = path.substr(settings.shareDir.size() + 1);
  const size_t slash = rest.rfind('/');
  place->dir = work.fd.get();
  if (slash != std::string::npos) {
    place->opened = Descriptor(openBelow(work.fd.get(), rest.substr(0, slash), O_PATH | O_DIRECTORY));
    if (!place->opened) return -1;
    place->dir = place->opened.get();
    rest.erase(0, slash + 1);
  }
  place->name = std::move(rest);
  return 0;
}

}  // namespace

int openWorkDirectory() {
  if (work.fd && work.path == settings.shareDir) return 0;
  closeWorkDirectory();
  Descriptor fd(open(settings.shareDir.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno == ELOOP || errno == ENOTDIR ? refused() : errno;
  const char *told = getenv(kIdentityVariable);
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !mineAlone(st) || (told != nullptr && told != directoryIdentity(st)))
    return refused();
  work = {settings.shareDir, std::move(fd), st};
  return 0;
}

void closeWorkDirectory() {
  work = WorkDirectory();
}

int workDirectoryDescriptor() {
  return work.fd.get();
}

void forgetToldDirectory() {
  unsetenv(kIdentityVariable);
}

void tellWorkDirectory() {
  setenv(kIdentityVariable, directoryIdentity(work.st).c_str(), 1);
}

int openWorkFile(const std::string &path, int flags, mode_t mode) {
  Place place;
  if (path.empty()) {
    errno = ENAMETOOLONG;
    return -1;
  }
  if (locate(path, &place) != 0) return -1;
  Descriptor fd(openat(place.dir, place.name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
  struct stat st;
  if (!fd || place.dir != AT_FDCWD || (flags & O_ACCMODE) != O_RDONLY) return fd.release();
  if (fstat(fd.get(), &st) == 0 && mineAlone(st)) return fd.release();
  errno = EPERM;
  return -1;
}

int statWorkFile(const std::string &path, struct stat *st) {
  Place place;
  if (locate(path, &place) != 0) return -1;
  return fstatat(place.dir, place.name.c_str(), st, AT_SYMLINK_NOFOLLOW);
}

int unlinkWorkFile(const std::string &path) {
  Place place;
  return locate(path, &place) != 0 ? -1 : unlinkat(place.dir, place.name.c_str(), 0);
}

int renameWorkFile(const std::string &from, const std::string &to) {
  Place source, target;
  if (locate(from, &source) != 0 || locate(to, &target) != 0) return -1;
  return renameat(source.dir, source.name.c_str(), target.dir, target.name.c_str());
}

int makeWorkSubdirectory(const std::string &path, mode_t mode) {
  Place place;
  return locate(path, &place) != 0 ? -1 : mkdirat(place.dir, place.name.c_str(), mode);
}

Dir openWorkList(const std::string &path) {
  int fd = -1;
  if (path == settings.shareDir) {
    if (const int err = openWorkDirectory()) {
      errno = err;
      return nullptr;
    }
    fd = openBelow(work.fd.get(), ".", O_RDONLY | O_DIRECTORY);
  } else {
    fd = openWorkFile(path, O_RDONLY | O_DIRECTORY);
  }
  if (fd < 0) return nullptr;
  Dir dir(fdopendir(fd));
  if (!dir) close(fd);
  return dir;
}

bool youngerThanWorkDirectory(const struct stat &st) {
  return openWorkDirectory() == 0 && st.st_ino > work.st.st_ino;
}

std::string directoryIdentity(const struct stat &st) {
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}
