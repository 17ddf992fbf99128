#include "btrfs/clone.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd_path.h"
#include "btrfs/inode_flags.h"
#include "btrfs/subvolume.h"
#include "filesystem/clone_attribute.h"

namespace kest {
namespace {

constexpr mode_t kCloneMode = 0600;
constexpr unsigned kDeepest = UINT16_MAX;

// Reads the attribute of a clone parent and opens the parent for reading. 0; -EINVAL: it is no clone
// parent; or -errno.
int readParent(BtrfsInode &parent, CloneAttribute *attribute) {
  if (!S_ISREG(parent.facts().mode)) return -EINVAL;
  const int rc = readCloneAttribute(parent, attribute);
  if (rc < 0) return rc;
  if (rc == 0 || !attribute->isParent()) return -EINVAL;
  return parent.openForReading();
}

// Builds the attribute that makes `clone` a clone of `parent`, whose attribute is `of_parent`. 0 or
// -errno.
int describeClone(int parent, const CloneAttribute &of_parent, int clone, CloneAttribute *attribute) {
  struct stat st;
  if (fstat(parent, &st) != 0) return -errno;
  attribute->setParent(st.st_ino);
  if (of_parent.depth() == kDeepest) return -EOVERFLOW;
  attribute->setDepth(of_parent.depth() + 1);

  Uuid parent_fs, clone_fs;
  int rc = fileSystemIdOf(parent, &parent_fs);
  if (rc == 0) rc = fileSystemIdOf(clone, &clone_fs);
  if (rc == -ENOTTY || (rc == 0 && parent_fs != clone_fs)) return -EXDEV;
  if (rc != 0) return rc;
  uint64_t parent_tree, clone_tree;
  rc = subvolumeIdOf(parent, &parent_tree);
  if (rc == 0) rc = subvolumeIdOf(clone, &clone_tree);
  if (rc != 0 || parent_tree == clone_tree) return rc;
  SubvolumeTable table;
  if (rc = table.load(clone); rc != 0) return rc;
  if (!table.related(parent_tree, clone_tree, nullptr)) return -EXDEV;
  if (parent_tree > UINT32_MAX) return -EOVERFLOW;
  attribute->setSnapshot(static_cast<uint32_t>(parent_tree));
  return 0;
}

// Files with and without copy-on-write cannot share blocks. The flag can change only while the file is
// empty.
int matchCopyOnWrite(int parent, int clone) {
  unsigned wanted, now;
  int rc = readStorageFlags(parent, &wanted);
  if (rc == 0) rc = readStorageFlags(clone, &now);
  if (rc != 0 || ((wanted ^ now) & FS_NOCOW_FL) == 0) return rc;
  // Clear all flags first, because an inherited compression flag would forbid no-copy-on-write.
  rc = writeStorageFlags(clone, 0);
  return rc == 0 && (wanted & FS_NOCOW_FL) != 0 ? writeStorageFlags(clone, FS_NOCOW_FL) : rc;
}

}  // namespace

int makeClone(int dir_fd, const std::string &name, BtrfsInode &parent) {
  CloneAttribute of_parent, attribute;
  if (int rc = readParent(parent, &of_parent); rc != 0) return rc;
  struct stat st;
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return -EEXIST;
  if (errno != ENOENT) return -errno;
  if (name.back() == '/') return -EISDIR;

  // Give the file a name only when it is complete, so that a process that dies leaves nothing behind.
  UniqueFd fd(openat(dir_fd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kCloneMode));
  if (!fd) return -errno;
  BtrfsInode clone(std::move(fd), BtrfsInode::Held::kReal);
  int rc = clone.setExactMode(kCloneMode);
  if (rc == 0) rc = describeClone(parent.readFd(), of_parent, clone.fd(), &attribute);
  if (rc == 0) rc = matchCopyOnWrite(parent.readFd(), clone.fd());
  if (rc == 0) rc = writeCloneAttribute(clone, attribute);
  if (rc != 0) return rc;
  do {
    rc = ioctl(clone.fd(), FICLONE, parent.readFd());
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return -errno;
  // linkat never replaces an existing name.
  rc = linkat(AT_FDCWD, FdPath(clone.fd()).get(), dir_fd, name.c_str(), AT_SYMLINK_FOLLOW);
  return rc == 0 ? 0 : -errno;
}

}  // namespace kest
