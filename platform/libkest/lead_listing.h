// The entries of a directory that a walk has to look at.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest.h"
#include "libkest/entry_check.h"
#include "libkest/sorted_pairs.h"

namespace kest {

struct OpenInode;
class TreeDiff;

// Goes through the inodes that lie in the directory and are in the difference or lead to one. Only
// numbers are known of them: names are read, and checked, one inode at a time.
class LeadListing {
 public:
  // `dir`, `diff` and `active`, a reader of the active tree, must live as long.
  LeadListing(OpenInode *dir, const TreeDiff &diff, TreeReader &active);

  // 0 or -errno; *entry is the next one, valid until the next call, or NULL.
  int next(const kest_direntx64_t **entry);

 private:
  int takeInode(uint64_t ino);
  int takeJunctions();

  OpenInode *dir_;
  const TreeDiff &diff_;
  TreeReader &active_;
  EntryCheck check_;
  SortedPairs::Cursor cursor_;
  std::vector<kest_direntx64_t> waiting_;  // of one inode, the next one last
  kest_direntx64_t current_{};
};

}  // namespace kest
