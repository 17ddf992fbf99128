#include "btrfs/inode_flags.h"

#include <cerrno>

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "btrfs/xattr.h"
#include "filesystem/blob_format.h"

namespace kest {
namespace {

constexpr uint64_t kItemNoDataSum = 1u << 0;
constexpr uint64_t kItemNoDataCow = 1u << 1;
constexpr uint64_t kItemNoCompress = 1u << 3;
constexpr uint64_t kItemImmutable = 1u << 6;
constexpr uint64_t kItemAppendOnly = 1u << 7;
constexpr uint64_t kItemCompress = 1u << 11;

// The forms of one flag: in this library, in FS_IOC_GETFLAGS, in FS_IOC_FSGETXATTR and in an inode
// item.
struct FlagForms {
  uint32_t bit;
  unsigned flag, xflag;
  uint64_t item;
};
constexpr FlagForms kFlags[] = {
    {KEST_FP_IMMUTABLE, FS_IMMUTABLE_FL, FS_XFLAG_IMMUTABLE, kItemImmutable},
    {KEST_FP_APPEND_ONLY, FS_APPEND_FL, FS_XFLAG_APPEND, kItemAppendOnly},
    {KEST_FP_NO_ATIME, FS_NOATIME_FL, FS_XFLAG_NOATIME, 1u << 9},
    {KEST_FP_NO_DUMP, FS_NODUMP_FL, FS_XFLAG_NODUMP, 1u << 8},
    {KEST_FP_SYNC, FS_SYNC_FL, FS_XFLAG_SYNC, 1u << 5},
    {KEST_FP_DIRSYNC, FS_DIRSYNC_FL, 0, 1u << 10},
};

bool hasNoFlags(int err) {
  return err == ENOTTY || err == EOPNOTSUPP || err == EINVAL;
}

int requestFlags(int fd, unsigned flags) {
  int all = static_cast<int>(flags);
  return ioctl(fd, FS_IOC_SETFLAGS, &all) == 0 ? 0 : -errno;
}

// Sets exactly `flags` on a file or directory. While no-copy-on-write and no-compression are both set,
// the kernel refuses any change, but it accepts setting both at once, so clear them first. That would
// lose no-compression on a file with data, so such a file stays as it is.
int setAllFlags(int fd, unsigned flags) {
  const int rc = requestFlags(fd, flags);
  constexpr unsigned kBoth = FS_NOCOW_FL | FS_NOCOMP_FL;
  struct stat st;
  if (rc != -EINVAL || (flags & kBoth) != kBoth || fstat(fd, &st) != 0 ||
      (S_ISREG(st.st_mode) && st.st_size > 0))
    return rc;
  constexpr unsigned kProtection = FS_IMMUTABLE_FL | FS_APPEND_FL;
  if (int lifted = requestFlags(fd, flags & ~kBoth & ~kProtection); lifted != 0) return lifted;
  return requestFlags(fd, flags);
}

// Sets the flags in `mask`, FS_XFLAG_* bits, to `wanted`, through FS_IOC_SETFLAGS. 0 or -errno.
int writeAsFlags(int fd, unsigned mask, unsigned wanted) {
  unsigned flags = 0;
  if (int rc = readAllFlags(fd, &flags); rc != 0) return rc;
  for (const FlagForms &one : kFlags) {
    if ((mask & one.xflag) != 0) flags &= ~one.flag;
    if ((wanted & one.xflag) != 0) flags |= one.flag;
  }
  return setAllFlags(fd, flags);
}

// Sets the flags in `mask`, FS_XFLAG_* bits, to `wanted`. 0 or -errno. Uses FSSETXATTR, because
// SETFLAGS would replace a file's compression property by the kernel's default algorithm.
int writeXflags(int fd, unsigned mask, unsigned wanted) {
  struct fsxattr attr {};
  if (ioctl(fd, FS_IOC_FSGETXATTR, &attr) != 0) return hasNoFlags(errno) ? 0 : -errno;
  const unsigned flags = (attr.fsx_xflags & ~mask) | wanted;
  if (flags == attr.fsx_xflags) return 0;
  attr.fsx_xflags = flags;
  if (ioctl(fd, FS_IOC_FSSETXATTR, &attr) == 0) return 0;
  return errno == EINVAL ? writeAsFlags(fd, mask, wanted) : -errno;
}

// Toggles the dirsync flag of a directory, which FSSETXATTR does not know. `flags` are all present
// flags. They must not contain the immutable and append-only flags, which would prevent restoring the
// compression property.
int toggleDirsync(int fd, unsigned flags) {
  std::string property;
  const int has_property = readXattr(fd, kCompressionProperty, &property);
  if (has_property != 0 && has_property != -ENODATA && has_property != -EOPNOTSUPP) return has_property;
  if (int rc = setAllFlags(fd, flags ^ FS_DIRSYNC_FL); rc != 0) return rc;
  return has_property == 0 ? writeXattr(fd, kCompressionProperty, property) : 0;
}

}  // namespace

bool sharesInPlace(uint64_t from, uint64_t to) {
  constexpr uint64_t kMustAgree = kItemNoDataSum | kItemNoDataCow;
  // A file without copy-on-write can get the no-compression flag only while it is empty.
  const bool too_late = (from & kItemNoDataCow) != 0 && (from & ~to & kItemNoCompress) != 0;
  return ((from ^ to) & kMustAgree) == 0 && !too_late;
}

int readProtection(int dir_fd, const char *name, Protection *protection) {
  struct statx stx;
  if (statx(dir_fd, name, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_TYPE, &stx) != 0) return -errno;
  protection->immutable = (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
  protection->append_only = (stx.stx_attributes & STATX_ATTR_APPEND) != 0;
  return 0;
}

int writeProtection(int fd, Protection protection) {
  return writeXflags(
      fd, FS_XFLAG_IMMUTABLE | FS_XFLAG_APPEND,
      (protection.immutable ? FS_XFLAG_IMMUTABLE : 0) | (protection.append_only ? FS_XFLAG_APPEND : 0));
}

int writeFlags(int fd, uint32_t wanted) {
  unsigned now = 0, mask = 0, xflags = 0;
  if (int rc = readAllFlags(fd, &now); rc != 0) return rc;
  if ((protectionBits(now) & KEST_FP_DIRSYNC) != (wanted & KEST_FP_DIRSYNC)) {
    if (int rc = writeProtection(fd, {}); rc != 0) return rc;
    if (int rc = toggleDirsync(fd, now & ~unsigned{FS_IMMUTABLE_FL | FS_APPEND_FL}); rc != 0) return rc;
  }
  for (const FlagForms &one : kFlags) {
    mask |= one.xflag;
    if ((wanted & one.bit) != 0) xflags |= one.xflag;
  }
  return writeXflags(fd, mask, xflags);
}

int readAllFlags(int fd, unsigned *flags) {
  int all = 0;
  *flags = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &all) != 0) return hasNoFlags(errno) ? 0 : -errno;
  *flags = static_cast<unsigned>(all);
  return 0;
}

int readStorageFlags(int fd, unsigned *flags) {
  const int rc = readAllFlags(fd, flags);
  *flags &= kStorageFlags;
  return rc;
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

uint32_t protectionBits(unsigned flags) {
  uint32_t bits = 0;
  for (const FlagForms &one : kFlags)
    if ((flags & one.flag) != 0) bits |= one.bit;
  return bits;
}

uint32_t protectionBitsOfItem(mode_t mode, uint64_t item_flags) {
  if (!S_ISREG(mode) && !S_ISDIR(mode)) return 0;
  uint32_t bits = 0;
  for (const FlagForms &one : kFlags)
    if ((item_flags & one.item) != 0) bits |= one.bit;
  return bits;
}

Protection protectionOfItem(uint64_t item_flags) {
  return {.immutable = (item_flags & kItemImmutable) != 0,
          .append_only = (item_flags & kItemAppendOnly) != 0};
}

}  // namespace kest
