#include "btrfs/xattr.h"

#include <cerrno>

#include <sys/xattr.h>

#include "base/fd_path.h"

namespace kest {
namespace {

constexpr size_t kFirstSize = 1024;  // enough for most lists and values, which then take one call

// Calls `get`(buffer, size), which acts like getxattr, and repeats it while the attribute grows.
template <typename Get>
int readGrowing(Get get, std::string *out) {
  out->resize(kFirstSize);
  for (;;) {
    ssize_t n = get(out->data(), out->size());
    if (n >= 0) {
      out->resize(static_cast<size_t>(n));
      return 0;
    }
    if (errno != ERANGE) return -errno;
    ssize_t needed = get(nullptr, 0);
    if (needed < 0) return -errno;
    out->resize(static_cast<size_t>(needed) + kFirstSize);
  }
}

}  // namespace

// In this file: calls on the descriptor are several times cheaper than those through /proc, but fail
// with EBADF for O_PATH descriptors.
int listXattrs(int fd, std::vector<std::string> *names) {
  names->clear();
  std::string list;
  int rc = readGrowing([&](char *buf, size_t size) { return flistxattr(fd, buf, size); }, &list);
  if (rc == -EBADF) {
    FdPath path(fd);
    rc = readGrowing([&](char *buf, size_t size) { return listxattr(path.get(), buf, size); }, &list);
  }
  if (rc == -EOPNOTSUPP) return 0;
  if (rc != 0) return rc;
  for (size_t at = 0; at < list.size(); at += names->back().size() + 1)
    names->emplace_back(list.c_str() + at);
  return 0;
}

int readXattr(int fd, const char *name, std::string *value) {
  int rc = readGrowing([&](char *buf, size_t size) { return fgetxattr(fd, name, buf, size); }, value);
  if (rc != -EBADF) return rc;
  FdPath path(fd);
  return readGrowing([&](char *buf, size_t size) { return getxattr(path.get(), name, buf, size); },
                     value);
}

int writeXattr(int fd, const char *name, const std::string &value) {
  int rc = fsetxattr(fd, name, value.data(), value.size(), 0);
  if (rc != 0 && errno == EBADF) rc = setxattr(FdPath(fd).get(), name, value.data(), value.size(), 0);
  return rc == 0 ? 0 : -errno;
}

int removeXattr(int fd, const char *name) {
  int rc = fremovexattr(fd, name);
  if (rc != 0 && errno == EBADF) rc = removexattr(FdPath(fd).get(), name);
  return rc == 0 || errno == ENODATA ? 0 : -errno;
}

}  // namespace kest
