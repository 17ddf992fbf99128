#include "btrfs/beneath.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kest {
namespace {

// openat2 can fail with EAGAIN when a rename happens anywhere while the kernel resolves "..", which our
// paths do not contain, or for reasons of its own.
constexpr int kAttempts = 100;

int openDirectory(int from, const std::string &piece, uint64_t flags, uint64_t resolve) {
  struct open_how how = {};
  how.flags = flags | O_DIRECTORY | O_CLOEXEC;
  how.resolve = resolve;
  for (int attempt = 0;; ++attempt) {
    const long fd = syscall(SYS_openat2, from, piece.c_str(), &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    if ((errno != EAGAIN && errno != EINTR) || attempt == kAttempts) return -errno;
  }
}

}  // namespace

int openBeneath(int from, std::string_view path, UniqueFd *dir) {
  constexpr size_t kPieceSize = PATH_MAX - 1;  // most bytes that the kernel accepts in one call
  const uint64_t resolve = from == AT_FDCWD ? 0
                                            : RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS |
                                                  RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
  if (path.empty()) path = "./";
  while (!path.empty()) {
    size_t length = path.size();
    if (length > kPieceSize) {
      size_t slash = path.rfind('/', kPieceSize - 1);
      if (slash == std::string_view::npos) return -ENAMETOOLONG;
      length = slash + 1;
    }
    int fd = openDirectory(from, std::string(path.substr(0, length)), O_PATH, resolve);
    if (fd < 0) return fd;
    dir->reset(fd);
    from = fd;
    path.remove_prefix(length);
    // Without this, a piece that begins with a slash would start at the root.
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  }
  return 0;
}

int openWithoutLinks(const std::string &path, UniqueFd *dir) {
  int fd = openDirectory(AT_FDCWD, path, O_RDONLY, RESOLVE_NO_SYMLINKS);
  if (fd < 0) return fd;
  dir->reset(fd);
  return 0;
}

}  // namespace kest
