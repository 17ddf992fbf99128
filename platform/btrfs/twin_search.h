// Finds twins: an inode that only the snapshot has and one that only the fileset has, which differ in
// nothing but their numbers. A restore leaves such pairs when it makes a file again.
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

// Twins have equal names in the same directories, where twins count as one directory. They are equal in
// everything that a restore could bring back. Clones have the same parent, where twins count as one
// parent. In directories all entries must be twins or equal, down to the last file.
class TwinSearch {
 public:
  // `found` holds number and KEST_DI_* bits of every inode that differs if twins are ignored. All
  // arguments must outlive this object.
  TwinSearch(const TreeRoot &root, uint64_t snapshot_id, const HiddenEntries &hidden,
             const SortedPairs &found);

  // Searches twins among `candidates`, pairs of a number in the snapshot and one in the fileset, and
  // below those that are directories. A pair with unequal attributes costs two reads. 0 or -errno.
  int search(const SortedPairs &candidates);
  // Returns the twins, by the number in the snapshot.
  const SortedPairs &twins() const { return twins_; }
  // Whether inode `ino`, the same file in both trees, has equal names and clone attributes, where twins
  // count as one inode: 1, 0 or -errno.
  int sameRelations(uint64_t ino);
  // Call this with the resulting difference. Drops directories that contain, or lead to, an inode of
  // the difference, and what depends on them: those are no twins. 1: some were dropped, so the
  // difference changes; 0; or -errno.
  int dropThoseThatLead(const DifferenceSet &difference);

 private:
  // A unit that is accepted or rejected as a whole: one pair and, for directories, everything below.
  struct Family {
    std::vector<NumberPair> pairs;
    std::vector<NumberPair> open;     // the pairs whose relations depend on possible twins
    std::vector<uint64_t> survivors;  // inodes of both trees in the family's directories
    std::unordered_map<uint64_t, uint64_t> directories, linked;  // pairs; linked: with several names
  };
  // A family that depends on other families or on survivors: where its part of each common list begins.
  struct Dependent {
    size_t pairs = 0, open = 0, survivors = 0;
    bool dropped = false;
  };

  // Searches the candidates with an index in [begin, end). Families do not depend on each other before
  // settle(), so several searchers can share the candidates. 0 or -errno.
  int searchSome(const SortedPairs &candidates, size_t begin, size_t end);
  void take(TwinSearch *other);
  // Functions that return int: 1, 0 or -errno.
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
