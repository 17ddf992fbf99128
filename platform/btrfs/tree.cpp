#include "btrfs/tree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <cerrno>

#include "base/fd_path.h"
#include "btrfs/difference.h"
#include "btrfs/directory.h"
#include "btrfs/frozen_inode.h"
#include "btrfs/inner_mounts.h"
#include "btrfs/inode.h"
#include "btrfs/inode_compare.h"
#include "btrfs/inode_names.h"
#include "btrfs/inode_scan.h"
#include "btrfs/metadata_room.h"
#include "btrfs/obstacles.h"
#include "btrfs/relatives.h"
#include "filesystem/error_text.h"

namespace kest {

// Locks the directory that this object has open. Its path may lead to another directory by now.
int BtrfsTree::lock() const {
  UniqueFd root(reopen(root_.fd.get(), O_RDONLY | O_DIRECTORY));
  if (!root || flock(root.get(), LOCK_EX | LOCK_NB) != 0) return -errno;
  return root.release();
}

int BtrfsTree::isWritable() const {
  struct statvfs figures;
  if (fstatvfs(root_.fd.get(), &figures) < 0) return -errno;
  if ((figures.f_flag & ST_RDONLY) != 0) return 0;
  const int read_only = isReadOnly(root_.fd.get());
  return read_only < 0 ? read_only : !read_only;
}

int64_t BtrfsTree::metadataRoom() const {
  return kest::metadataRoom(root_.fd.get());
}

int BtrfsTree::openInode(uint64_t ino, const char *, std::unique_ptr<Inode> *inode) const {
  const int frozen = isFrozen();
  if (frozen < 0) return frozen;
  return frozen > 0 ? openFrozenInode(root_, reader_, ino, inode) : kest::openInode(root_, ino, inode);
}

int BtrfsTree::isFrozen() const {
  if (frozen_ < 0) {
    const int rc = root_.isSnapshot() ? isReadOnly(root_.fd.get()) : 0;
    if (rc < 0) return rc;
    frozen_ = rc;
  }
  return frozen_;
}

int BtrfsTree::openSame(const Inode &other, std::unique_ptr<Inode> *inode) const {
  return openSameInode(root_, other, inode);
}

int BtrfsTree::openNamed(const Directory &dir, const std::string &name,
                         std::unique_ptr<Inode> *inode) const {
  const int frozen = isFrozen();
  if (frozen < 0) return frozen;
  return kest::openNamed(root_, frozen > 0 ? &reader_ : nullptr, dir, name, inode);
}

int BtrfsTree::createFile(const Directory &dir, const std::string &name, mode_t mode,
                          std::unique_ptr<Inode> *inode) const {
  return kest::createFile(root_, dir, name, mode, inode);
}

int BtrfsTree::openDirectory(const Directory *start, std::string_view path,
                             std::unique_ptr<Directory> *dir) const {
  const int fd = start == nullptr ? root_.fd.get() : static_cast<const BtrfsDirectory *>(start)->fd();
  const int frozen = isFrozen();
  if (frozen < 0) return frozen;
  return openDirectoryBeneath(root_, frozen > 0 ? &reader_ : nullptr, fd, path, dir);
}

int BtrfsTree::duplicateDirectory(int fd, std::unique_ptr<Directory> *dir) const {
  return kest::duplicateDirectory(root_, fd, dir);
}

int BtrfsTree::findNames(uint64_t ino, InodeNames *names) const {
  return findInodeNames(root_.fd.get(), root_.subvol_id, ino, !root_.isSnapshot(), names);
}

std::unique_ptr<InodeScan> BtrfsTree::openScan() const {
  return std::make_unique<BtrfsScan>(root_);
}

int BtrfsTree::openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const {
  uint64_t line = 0;
  const int rc = findLine(root_, snapshot_id, &line);
  if (rc == -EINVAL)
    return failWith(EINVAL, "subvolume " + std::to_string(snapshot_id) + " is not a snapshot of " +
                                root_.displayName());
  if (rc < 0) return rc;
  rememberSnapshot(root_, snapshot_id, line);
  *difference = std::make_unique<BtrfsDifference>(root_, snapshot_id, line);
  return 0;
}

int BtrfsTree::largestInode(const uint64_t *snapshot_id, uint64_t *ino) const {
  int rc = kest::largestInode(root_.fd.get(), root_.subvol_id, ino);
  const uint64_t other = snapshot_id != nullptr ? *snapshot_id
                         : root_.isSnapshot()   ? root_.fileset_id
                                                : currentSnapshot(root_);
  uint64_t theirs = 0;
  if (rc == 0 && other != 0) rc = kest::largestInode(root_.fd.get(), other, &theirs);
  if (rc < 0) return rc;
  *ino = std::max(*ino, theirs);
  return 0;
}

int BtrfsTree::findMountInTheWay(const Tree &snapshot, const Difference &difference,
                                 std::string *point) const {
  return kest::findMountInTheWay(root_, static_cast<const BtrfsTree &>(snapshot).root_,
                                 difference.set(), point);
}

int BtrfsTree::findObstacles(const Tree &snapshot, Difference *difference,
                             const ObstacleVisitor &visit) const {
  return kest::findObstacles(root_, static_cast<const BtrfsTree &>(snapshot).root_, difference, visit);
}

int BtrfsTree::fileSurvives(const Tree &snapshot, const char *path) const {
  return kest::fileSurvives(root_, static_cast<const BtrfsTree &>(snapshot).root_, path);
}

}  // namespace kest
