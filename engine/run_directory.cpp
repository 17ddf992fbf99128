#include "engine/run_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "formats/work_names.h"

namespace {

bool mineAlone(const struct stat &st) {
  return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

Result RunDirectory::open(const std::string &path) {
  path_ = path;
  fd_.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd_ || fstat(fd_.get(), &st) != 0) return errnoResult(errno);
  const char *expected = getenv(kEngineDirectoryVariable);
  inode_ = st.st_ino;
  identity_ = directoryIdentity(st);
  if (!mineAlone(st) || (expected != nullptr && expected != identity_)) return errnoResult(EPERM);
  return {};
}

int RunDirectory::reach(const std::string &file, const char **name) const {
  const size_t slash = file.rfind('/');
  const bool inside = slash != std::string::npos && fd_ && file.compare(0, slash, path_) == 0;
  *name = file.c_str() + (inside ? slash + 1 : 0);
  return inside ? fd_.get() : AT_FDCWD;
}

Result RunDirectory::openFile(const std::string &file, int flags, UniqueFd *fd, mode_t mode) const {
  const char *name = nullptr;
  const int dir = reach(file, &name);
  UniqueFd opened(openat(dir, name, flags | O_CLOEXEC | O_NOFOLLOW, mode));
  struct stat st;
  if (!opened || fstat(opened.get(), &st) != 0) return errnoResult(errno);
  if (dir == AT_FDCWD && S_ISREG(st.st_mode) && !mineAlone(st)) return errnoResult(EPERM);
  *fd = std::move(opened);
  return {};
}

void RunDirectory::remove(const std::string &file) const {
  const char *name = nullptr;
  const int dir = reach(file, &name);
  unlinkat(dir, name, 0);
}
