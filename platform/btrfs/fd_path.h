// A path to the object behind any descriptor.
#pragma once

#include <cstdio>

namespace kest {

// Leads system calls that refuse O_PATH descriptors (xattrs, chmod, open) to the object itself, a
// symbolic link included: the kernel jumps there and follows nothing further.
class FdPath {
 public:
  explicit FdPath(int fd) { snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd); }
  const char *get() const { return text_; }

 private:
  char text_[32];
};

}  // namespace kest
