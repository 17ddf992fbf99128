// A path to the object behind any descriptor.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

// Leads system calls that refuse O_PATH descriptors (xattrs, chmod, open) to the object itself, a
// symbolic link included: the kernel jumps there and follows nothing further.
class FdPath {
 public:
  explicit FdPath(int fd) { snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd); }
  const char *get() const { return text_; }

 private:
  char text_[32];
};

// chmod for any descriptor: 0, or -1 and errno. The call on the descriptor itself is several times
// cheaper than the one by way of /proc, but refused for O_PATH descriptors.
inline int changeMode(int fd, mode_t mode) {
  const int rc = fchmod(fd, mode);
  return rc != 0 && errno == EBADF ? chmod(FdPath(fd).get(), mode) : rc;
}

// Opens the object behind `fd` once more, close-on-exec. The caller closes it. -1 and errno.
inline int reopen(int fd, int flags) {
  return open(FdPath(fd).get(), flags | O_CLOEXEC);
}
