#include "base/unique_fd.h"

#include <unistd.h>

#include <cerrno>

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) {
    const int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}
