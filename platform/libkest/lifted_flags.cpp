#include "libkest/lifted_flags.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "btrfs/file_handle.h"

namespace kest {

LiftedFlags::~LiftedFlags() {
  int saved = errno;
  setAgain();
  errno = saved;
}

int LiftedFlags::lift(int path_fd, Protection afterwards) {
  int fd = reopen(path_fd, O_RDONLY | O_NONBLOCK | O_NOATIME);
  if (fd < 0) return fd;
  UniqueFd opened(fd);
  if (int rc = writeProtection(fd, {}); rc != 0) return rc;
  fd_ = std::move(opened);
  afterwards_ = afterwards;
  return 0;
}

int LiftedFlags::setAgain() {
  if (!fd_) return 0;
  UniqueFd fd = std::move(fd_);
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return -errno;
  return st.st_nlink == 0 ? 0 : writeProtection(fd.get(), afterwards_);
}

}  // namespace kest
