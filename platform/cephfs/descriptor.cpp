#include "cephfs/descriptor.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

#include "cephfs/names.h"

namespace kest {

namespace {

// A mount tags the numbers of a snapshot's inodes in the bits above.
constexpr uint64_t kNumberBits = (1ull << 48) - 1;

int openBeneath(int start, const std::string &path) {
  struct open_how how {};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const long fd = syscall(SYS_openat2, start, path.empty() ? "." : path.c_str(), &how, sizeof how);
  return fd < 0 ? -errno : static_cast<int>(fd);
}

}  // namespace

int openDescriptor(const CephRoot &root, uint64_t ino, const std::string *path) {
  InodeNames names;
  if (path == nullptr) {
    const int rc = findNamesOf(root, ino, &names);
    if (rc < 0) return rc;
    if (rc == 0 || names.paths.empty()) return -ENOENT;
    path = &names.paths.front();
  }
  UniqueFd fd(openBeneath(root.fd.get(), *path));
  if (!fd) return fd.get();
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return -errno;
  return (st.st_ino & kNumberBits) == (ino & kNumberBits) ? fd.release() : -ESTALE;
}

}  // namespace kest
