#include "btrfs/tree_sweep.h"

#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>
#include <vector>

namespace kest {

namespace {

// A search in a tree takes about as long as reading this many items.
constexpr size_t kItemsPerSearch = 24;

}  // namespace

int TouchedInBatch::next() {
  ino_ = 0;
  for (; position_ < batch_->items().size(); ++position_) {
    const TreeItem &item = batch_->items()[position_];
    if (item.key.type != BTRFS_INODE_ITEM_KEY) continue;
    if (!decodeInode(item, &item_)) return -EUCLEAN;
    // The search returns all inodes of a block that was written, also those that were not.
    if (item_.transid <= line_) continue;
    ino_ = item.key.objectid;
    ++position_;
    break;
  }
  return 0;
}

int TouchedInodes::next() {
  for (;;) {
    if (int rc = touched_.next(); rc < 0 || touched_.ino() != 0) return rc;
    int rc = batch_.read(fd_, tree_id_, from_, {last_, 255, UINT64_MAX}, line_ + 1, kScanBytes);
    if (rc < 0 || batch_.items().empty()) return rc;
    from_ = batch_.items().back().key.next();
    touched_.begin(batch_);
  }
}

int TouchedChunks::next(TouchedChunk *chunk) {
  const std::lock_guard<std::mutex> hold(mutex_);
  if (at_end_) return 0;
  chunk->whole = dense_;
  const TreeKey most{kLastInode, 255, UINT64_MAX};
  int rc = dense_ ? chunk->window.read(fd_, tree_id_, from_, bytes_)
                  : chunk->touched.read(fd_, tree_id_, from_, most, line_ + 1, bytes_);
  if (rc < 0) return rc;
  bytes_ = std::min(2 * bytes_, kScanBytes);
  const std::vector<TreeItem> &items = chunk->active().items();
  at_end_ = items.empty();
  chunk->first = first_;
  chunk->last = kLastInode;
  if (at_end_) return 1;
  const TreeKey &end = items.back().key;
  chunk->last = end.objectid;
  from_ = end.next();
  // The next chunk may begin with the rest of the last inode. That inode belongs to this chunk, and its
  // rest has no inode item.
  first_ = end.objectid + 1;
  return findDensity(chunk->active());
}

// Decides from the last chunk how to read the next one. 1 or -EUCLEAN.
int TouchedChunks::findDensity(const TreeBatch &batch) {
  size_t touched = 0;
  TouchedInBatch inodes(line_);
  inodes.begin(batch);
  for (;; ++touched) {
    if (int rc = inodes.next(); rc < 0) return rc;
    if (inodes.ino() == 0) break;
  }
  dense_ = touched * kItemsPerSearch >= batch.items().size();
  return 1;
}

}  // namespace kest
