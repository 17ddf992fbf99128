#include <cerrno>

#include "kest.h"

namespace {
int notSupported() {
  errno = ENOTSUP;
  return -1;
}
}  // namespace

extern "C" int kest_clone_snap(const char *, const char *) {
  return notSupported();
}

extern "C" int kest_clone_copy(const char *, const char *) {
  return notSupported();
}

extern "C" int kxfattr(int, int, void *, void *) {
  return notSupported();
}
