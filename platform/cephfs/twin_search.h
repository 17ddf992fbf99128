// Finds twins: an inode that only the snapshot has and one that only the fileset has, which differ in
// nothing but their numbers. A restore leaves such pairs when it makes a file again.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "cephfs/tree_root.h"
#include "diff/difference_set.h"
#include "diff/entry_pairs.h"

namespace kest {

// A name in a directory of both trees that leads to different inodes, with equal listings.
struct TwinCandidate {
  uint64_t dir = 0;
  std::string name;
};

// Returns true if the listings of two inodes agree in everything that a restore could bring back.
bool sameTraits(const CephStat &now, const CephStat &then);

// A group of pairs is accepted or rejected as a whole: a directory with everything below it, or the
// directories in which a file with several names is.
class TwinSearch {
 public:
  // `difference` is the difference without regard to twins.
  TwinSearch(const CephRoot &active, const CephRoot &snapshot, const DifferenceSet &difference)
      : active_(active), snapshot_(snapshot), difference_(difference) {}

  int search(const std::vector<TwinCandidate> &candidates);  // 0 or -errno
  // After search(), returns the inodes of both trees of which not every name was met.
  std::unordered_set<uint64_t> withUnmetNames() const;
  // Counts the names that `inodes` have in the active directory `dir`, where they mean the same inodes
  // in the snapshot. `names`: entries of `dir`, in any order; entries of other inodes are left out.
  // 0 or -errno.
  int meetNames(uint64_t dir, const std::vector<DirEntry> &names,
                const std::unordered_set<uint64_t> &inodes);
  void conclude();  // decides; the results below are empty before

  // Number in the snapshot and number in the fileset.
  const std::vector<std::pair<uint64_t, uint64_t>> &twins() const { return twins_; }
  // Inodes that are in the difference no more: twins, and what both trees have in directories that are
  // twins.
  const std::unordered_set<uint64_t> &settled() const { return settled_; }
  // How many names of a directory of both trees mean twins.
  const std::unordered_map<uint64_t, size_t> &names() const { return names_; }

 private:
  struct Node {
    uint64_t now = 0, then = 0;
    size_t group = 0;  // a node of the same group, towards its representative, which has its own index
    size_t links = 1, met = 0;
    bool valid = true;
  };
  struct Pair {
    size_t node = 0;
    InodeRef now, then;
  };

  size_t groupOf(size_t node);
  int add(size_t parent, const InodeRef &dir_now, const InodeRef &dir_then, const std::string &name,
          size_t *node);
  int judge(size_t node, const InodeRef &now, const CephStat &st_now, const InodeRef &then,
            const CephStat &st_then);
  int listPair(const Pair &pair);
  int unchangedBelow(size_t top, InodeRef now, InodeRef then);

  const CephRoot &active_, &snapshot_;
  const DifferenceSet &difference_;
  std::vector<Node> nodes_;
  std::map<std::pair<uint64_t, uint64_t>, size_t> index_;
  std::unordered_map<uint64_t, size_t> of_now_, of_then_;
  std::vector<Pair> folders_;                      // directories that are still to be listed
  std::vector<std::pair<uint64_t, size_t>> tops_;  // directory of a candidate, its node
  std::vector<std::pair<uint64_t, uint64_t>> twins_;
  std::unordered_set<uint64_t> settled_;
  std::unordered_map<uint64_t, size_t> names_;
};

}  // namespace kest
