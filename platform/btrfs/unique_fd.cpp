#include "btrfs/unique_fd.h"

#include <cerrno>
#include <unistd.h>

namespace kest {

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) {
    int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}

}  // namespace kest
