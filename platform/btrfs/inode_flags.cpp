#include "btrfs/inode_flags.h"

#include <cerrno>

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "filesystem/blob_format.h"

namespace kest {
namespace {

constexpr uint64_t kItemNoDataCow = 1u << 1;
constexpr uint64_t kItemNoCompress = 1u << 3;
constexpr uint64_t kItemImmutable = 1u << 6;
constexpr uint64_t kItemAppendOnly = 1u << 7;
constexpr uint64_t kItemCompress = 1u << 11;

bool hasNoFlags(int err) {
  return err == ENOTTY || err == EOPNOTSUPP || err == EINVAL;
}

}  // namespace

int readProtection(int dir_fd, const char *name, Protection *protection) {
  struct statx stx;
  if (statx(dir_fd, name, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_TYPE, &stx) != 0) return -errno;
  protection->immutable = (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
  protection->append_only = (stx.stx_attributes & STATX_ATTR_APPEND) != 0;
  return 0;
}

// Through FSSETXATTR, not SETFLAGS: the latter would turn the compression property of a file into the
// kernel's default algorithm.
int writeProtection(int fd, Protection protection) {
  struct fsxattr attr {};
  if (ioctl(fd, FS_IOC_FSGETXATTR, &attr) != 0) return hasNoFlags(errno) ? 0 : -errno;
  unsigned wanted = attr.fsx_xflags & ~(FS_XFLAG_IMMUTABLE | FS_XFLAG_APPEND);
  if (protection.immutable) wanted |= FS_XFLAG_IMMUTABLE;
  if (protection.append_only) wanted |= FS_XFLAG_APPEND;
  if (wanted == attr.fsx_xflags) return 0;
  attr.fsx_xflags = wanted;
  return ioctl(fd, FS_IOC_FSSETXATTR, &attr) == 0 ? 0 : -errno;
}

int readStorageFlags(int fd, unsigned *flags) {
  int all = 0;
  *flags = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &all) != 0) return hasNoFlags(errno) ? 0 : -errno;
  *flags = static_cast<unsigned>(all) & kStorageFlags;
  return 0;
}

int writeStorageFlags(int fd, unsigned flags) {
  int all = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &all) != 0) return -errno;
  all = static_cast<int>((static_cast<unsigned>(all) & ~kStorageFlags) | flags);
  return ioctl(fd, FS_IOC_SETFLAGS, &all) == 0 ? 0 : -errno;
}

unsigned storageFlagsOfItem(mode_t mode, uint64_t item_flags) {
  if (!S_ISREG(mode) && !S_ISDIR(mode)) return 0;
  unsigned flags = 0;
  if (item_flags & kItemNoDataCow) flags |= FS_NOCOW_FL;
  if (item_flags & kItemNoCompress)
    flags |= FS_NOCOMP_FL;
  else if (item_flags & kItemCompress)
    flags |= FS_COMPR_FL;
  return flags;
}

Protection protectionOfItem(uint64_t item_flags) {
  return {.immutable = (item_flags & kItemImmutable) != 0,
          .append_only = (item_flags & kItemAppendOnly) != 0};
}

}  // namespace kest
