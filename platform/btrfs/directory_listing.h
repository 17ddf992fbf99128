// Lists open directories: all entries, the changed ones, or those that lead to a change.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/descriptor_inode.h"
#include "btrfs/live_entries.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "diff/change_notes.h"
#include "filesystem/entry_list.h"

namespace kest {

// Lists the whole present directory without hidden entries, "." and ".." only with `dots`. Looks up
// generations for directories only. 0 or -errno.
int listDirectory(const TreeRoot &root, DescriptorInode &dir, const HiddenEntries &hidden, bool dots,
                  EntryList *entries);

// Lists the entries in which the directory differs from the snapshot's, as `notes` has them or by
// comparing the directory in both trees, and drops those that the present directory contradicts. `set`
// tells whether there is anything to compare, and which inode numbers were reused. `line` is the last
// transaction that both trees have in common. 0 or -errno.
int listChangedEntries(const TreeRoot &root, DescriptorInode &dir, const DifferenceSet &set,
                       const ChangeNotes &notes, uint64_t snapshot_id, uint64_t line,
                       EntryList *entries);

// Lists the entries of the directory whose inodes are in the difference or lead to one. The set knows
// only inode numbers. If these are few among the entries, reads their names from the tree, one inode at
// a time, and checks them; else lists the directory once.
class LeadListing : public EntryStream {
 public:
  // All arguments must outlive this object. `active` reads the active tree.
  LeadListing(const TreeRoot &root, DescriptorInode &dir, const DifferenceSet &set, TreeReader &active);

  int next(const kest_direntx64_t **entry) override;

 private:
  int begin();
  int listAll();
  int takeNext();
  int takeInode(uint64_t ino);
  void takeJunctions();
  bool needsCheck(const kest_direntx64_t &record) const;

  const TreeRoot &root_;
  DescriptorInode &opened_;
  const uint64_t dir_;
  const DifferenceSet &set_;
  TreeReader &active_;
  LiveEntries live_;
  SortedPairs::Cursor cursor_;
  bool begun_ = false, listed_ = false;  // listed_: the whole directory was read into all_
  std::vector<DirEntry> all_;            // the leading entries by inode number; next_ is the next one
  size_t next_ = 0;
  std::vector<kest_direntx64_t> waiting_;  // entries of one inode; the last one is next
  kest_direntx64_t current_{};
};

}  // namespace kest
