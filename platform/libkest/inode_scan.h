// What stands behind a kest_iscan_t.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "btrfs/tree_items.h"
#include "libkest/fileset_handle.h"
#include "libkest/tree_diff.h"

struct kest_iscan {
  kest_fssnap_handle *handle = nullptr;  // not owned
  bool difference = false;
  uint64_t snapshot_id = 0, line = 0;  // of a difference
  uint64_t next_ino = kest::kFirstInode;
  kest_iattr64_t attr{};  // the record last returned

  explicit kest_iscan(kest_fssnap_handle *h)
      : handle(h), tree(h->root.get(), h->subvol_id), names(h->root.get(), h->subvol_id) {}

  // The difference, computed at the first call. 0 or -errno.
  int diff(const kest::TreeDiff **result);

  kest::TreeReader tree, names;          // of the handle
  std::optional<kest::TreeReader> then;  // of the snapshot, in a difference
  int frozen = -1;                       // the tree cannot change; -1: not yet asked

 private:
  std::unique_ptr<kest::TreeDiff> diff_;
};

namespace kest {

// Attributes as the tree tells them.
void fillAttributes(uint64_t ino, const InodeItem &item, const std::vector<XattrItem> &xattrs,
                    kest_iattr64_t *attr);

}  // namespace kest
