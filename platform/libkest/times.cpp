#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "kest.h"
#include "libkest/c_call.h"

namespace {

enum TimesFlag { kAccessTime = 1, kModificationTime = 2 };

// UTIME_NOW and UTIME_OMIT are nanosecond values to the kernel, so a bad count must not get through.
int convert(const kest_timestruc64_t &from, struct timespec *to) {
  if (from.tv_nsec > 999999999u) return -EINVAL;
  to->tv_sec = from.tv_sec;
  to->tv_nsec = static_cast<long>(from.tv_nsec);
  return 0;
}

int setTimes(int dir_fd, const char *name, int flags, const kest_timestruc64_t times[4]) {
  if (name == nullptr || times == nullptr) return -EINVAL;
  struct timespec stamps[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
  int rc = 0;
  if (flags & kAccessTime) rc = convert(times[0], &stamps[0]);
  if (rc == 0 && (flags & kModificationTime)) rc = convert(times[1], &stamps[1]);
  if (rc != 0) return rc;
  int at_flags = AT_SYMLINK_NOFOLLOW | (*name == '\0' ? AT_EMPTY_PATH : 0);
  return utimensat(dir_fd, name, stamps, at_flags) == 0 ? 0 : -errno;
}

}  // namespace

extern "C" int kest_set_times_path(const char *path, int flags, const kest_timestruc64_t times[4]) {
  return kest::cCall([&] {
    if (path != nullptr && *path == '\0') return -ENOENT;
    return setTimes(AT_FDCWD, path, flags, times);
  });
}

extern "C" int kest_fset_times(int fd, int flags, const kest_timestruc64_t times[4]) {
  return kest::cCall([&] { return setTimes(fd, "", flags, times); });
}
