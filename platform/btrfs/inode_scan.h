// Scans all inodes of a subvolume.
#pragma once

#include <cstdint>

#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

class BtrfsScan : public InodeScan {
 public:
  // `root` must outlive this object.
  explicit BtrfsScan(const TreeRoot &root) : root_(root), tree_(root.fd.get(), root.subvol_id) {}

  int next(uint64_t from, uint64_t to, kest_iattr64_t *attr) override;
  int nextNow(uint64_t from, uint64_t end, kest_iattr64_t *attr) override;

 private:
  int find(uint64_t from, uint64_t to, uint64_t *ino, InodeItem *item);

  const TreeRoot &root_;
  TreeReader tree_;
  int frozen_ = -1;  // 1: the tree is read-only; -1: not known yet
};

}  // namespace kest
