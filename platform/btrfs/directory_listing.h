// Listings of open directories: all entries, those that changed, those that lead to a change.
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

// The whole live directory, hidden entries left out, `dots` or not. Generations are looked up for
// directories only. 0 or -errno.
int listDirectory(const TreeRoot &root, DescriptorInode &dir, const HiddenEntries &hidden, bool dots,
                  EntryList *entries);

// Compares the directory with the snapshot's, unless the comparison of the trees noted how they differ,
// and drops what the live one contradicts. `set` decides whether there is anything to compare, and says
// which inode numbers were used again. `line`: the last transaction that both trees have in common. 0
// or -errno.
int listChangedEntries(const TreeRoot &root, DescriptorInode &dir, const DifferenceSet &set,
                       const ChangeNotes &notes, uint64_t snapshot_id, uint64_t line,
                       EntryList *entries);

// Goes through the inodes that lie in the directory and are in the difference or lead to one that is.
// The set has only their numbers. Where they are few among the entries, their names are read from the
// tree, and checked, one inode at a time; else the directory is listed once.
class LeadListing : public EntryStream {
 public:
  // All must live as long; `active` is a reader of the active tree.
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
  bool begun_ = false, listed_ = false;  // the directory as a whole, in all_
  std::vector<DirEntry> all_;            // what leads there, by inode number, from next_ on
  size_t next_ = 0;
  std::vector<kest_direntx64_t> waiting_;  // of one inode, the next one last
  kest_direntx64_t current_{};
};

}  // namespace kest
