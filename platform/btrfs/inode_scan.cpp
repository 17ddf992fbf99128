#include "btrfs/inode_scan.h"

#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>

#include "btrfs/attributes.h"
#include "btrfs/inode.h"

namespace kest {

namespace {

// Reads the present attributes of an inode. 0, -ENOENT or another -errno.
int readAttributesNow(const TreeRoot &root, uint64_t ino, kest_iattr64_t *attr) {
  std::unique_ptr<Inode> inode;
  const int rc = openInode(root, ino, &inode);
  return rc < 0 ? rc : inode->readAttributes(attr);
}

}  // namespace

// Finds the first inode in [from, to] with a name. 1, 0 or -errno.
int BtrfsScan::find(uint64_t from, uint64_t to, uint64_t *ino, InodeItem *inode) {
  for (uint64_t at = std::max(from, kFirstInode); at <= std::min(to, kLastInode); ++at) {
    const TreeItem *item;
    int rc = tree_.at({at, 0, 0}, &item);
    if (rc <= 0) return rc;
    at = item->key.objectid;
    if (at > to) return 0;
    if (item->key.type != BTRFS_INODE_ITEM_KEY) continue;
    if (!decodeInode(*item, inode)) return -EUCLEAN;
    if (inode->nlink == 0) continue;
    *ino = at;
    return 1;
  }
  return 0;
}

int BtrfsScan::next(uint64_t from, uint64_t to, kest_iattr64_t *attr) {
  uint64_t ino;
  InodeItem item;
  int rc = find(from, to, &ino, &item);
  if (rc <= 0) return rc;
  rc = readTreeAttributes(tree_, ino, item, attr);
  return rc < 0 ? rc : 1;
}

int BtrfsScan::nextNow(uint64_t from, uint64_t end, kest_iattr64_t *attr) {
  if (frozen_ < 0) {
    int rc = isReadOnly(root_.fd.get());
    if (rc < 0) return rc;
    frozen_ = rc;
  }
  for (uint64_t ino = from; ino < end; ++ino) {
    InodeItem item;
    int rc;
    if (!frozen_) tree_.forget();
    // The tree of a writable subvolume lags behind the inodes until a commit. So ask the inode itself,
    // and use the tree only to find the next number when the range has several.
    if (!frozen_ && ino + 1 == end) {
      rc = readAttributesNow(root_, ino, attr);
    } else {
      rc = find(ino, end - 1, &ino, &item);
      if (rc <= 0) return rc;
      rc = frozen_ ? readTreeAttributes(tree_, ino, item, attr) : readAttributesNow(root_, ino, attr);
    }
    if (rc == 0) return 1;
    if (rc != -ENOENT) return rc;
  }
  return 0;
}

}  // namespace kest
