// Finding twins: an inode that only the snapshot has, and one that only the fileset has, that nobody
// could tell apart but by their numbers. A restore that made a file again left one.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "btrfs/inode_compare.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "diff/difference_set.h"
#include "diff/sorted_pairs.h"
#include "filesystem/clone_attribute.h"

namespace kest {

// Twins have the same names in the same directories, where twins count as one directory; all that a
// restore could bring back is equal; clones have the same parent, where twins count as one; and in
// directories everything is a twin or equal, down to the last file.
class TwinSearch {
 public:
  // `found`: the number and KEST_DI_* bits of every inode that differs while nothing is known of twins.
  // All must live as long.
  TwinSearch(const TreeRoot &root, uint64_t snapshot_id, const HiddenEntries &hidden,
             const SortedPairs &found);

  // Looks for twins among `candidates`, pairs of a number in the snapshot and one in the fileset, and
  // below those that are directories. Takes two looks at an inode for a pair of other attributes. 0 or
  // -errno.
  int search(const SortedPairs &candidates);
  // Those that were found, by the number in the snapshot.
  const SortedPairs &twins() const { return twins_; }
  // Whether inode `ino`, the same file in both trees, has the same names and the same clone attributes,
  // where twins count as one inode. 1, 0 or -errno.
  int sameRelations(uint64_t ino);
  // To be called with the difference that results: directories that hold what is in it or leads to it
  // are no twins, nor is what depends on them. 1 when some were dropped, so that the difference is
  // another; 0 or -errno.
  int dropThoseThatLead(const DifferenceSet &difference);

 private:
  // What stands or falls together: a pair, with everything below where it is one of directories.
  struct Family {
    std::vector<NumberPair> pairs;
    std::vector<NumberPair> open;  // of those, with relations to inodes that may turn out to be twins
    std::vector<uint64_t> survivors;  // inodes of both trees in its directories
    std::unordered_map<uint64_t, uint64_t> directories, linked;  // pairs, the latter of many names
  };
  // A family that depends on others or on survivors: where its own begin in the lists of all of them.
  struct Dependent {
    size_t pairs = 0, open = 0, survivors = 0;
    bool dropped = false;
  };

  // All answers: 1, 0 or -errno.
  bool onlyIn(unsigned tree, uint64_t ino) const;
  int searchFamily(const NumberPair &top, Family *family);
  int comparePair(const NumberPair &pair, Family *family);
  int compareEntries(const NumberPair &pair, Family *family);
  int addChild(const DirEntryItem &now, const DirEntryItem &then, Family *family);
  bool twinOf(uint64_t then, const Family *family, uint64_t *now) const;
  int relate(const NumberPair &pair, const Family *family, bool *open);
  int relate(const NumberPair &pair, const InodeRecord &now, const InodeRecord &then,
             const Family *family, bool *open);
  bool sameNames(const std::vector<NameRef> &now, const std::vector<NameRef> &then,
                 const Family *family, bool *open) const;
  int relateMadeAgain(const CloneAttribute *now, const CloneAttribute &then, const Family *family,
                      bool *open);
  int isParentOfDepth(TreeReader &tree, uint64_t ino, unsigned depth);
  int parentIsThere(const CloneAttribute &clone);
  void keep(const Family &family);
  int settle();

  const TreeRoot &root_;
  const HiddenEntries &hidden_;
  const SortedPairs &found_;
  TreeReader active_, snapshot_, active_entries_, snapshot_entries_;
  PairSorter certain_sorter_;
  SortedPairs certain_, twins_;
  std::vector<Dependent> dependent_;
  std::vector<NumberPair> pairs_, open_;
  std::vector<uint64_t> survivors_;
};

}  // namespace kest
