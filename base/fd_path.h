// Names the object of any descriptor by a path.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

// System calls that refuse O_PATH descriptors (xattrs, chmod, open) accept this path. It leads to the
// object itself, even if that is a symbolic link: the kernel jumps to the object and follows nothing
// further.
class FdPath {
 public:
  explicit FdPath(int fd) { snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd); }
  const char *get() const { return text_; }

 private:
  char text_[32];
};

// chmod for any descriptor; returns 0, or -1 and errno. fchmod is several times cheaper than the way
// through /proc, but refuses O_PATH descriptors.
inline int changeMode(int fd, mode_t mode) {
  const int rc = fchmod(fd, mode);
  return rc != 0 && errno == EBADF ? chmod(FdPath(fd).get(), mode) : rc;
}

// Opens the object of `fd` again, close-on-exec. The caller closes the result. Returns -1 and errno on
// failure.
inline int reopen(int fd, int flags) {
  return open(FdPath(fd).get(), flags | O_CLOEXEC);
}
