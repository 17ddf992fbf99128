// The inodes in which a fileset and one of its snapshots differ.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "btrfs/tree_items.h"
#include "libkest/fileset_handle.h"
#include "libkest/kinship.h"
#include "libkest/sorted_pairs.h"

namespace kest {

class TouchedInodes;

struct DiffInode {
  uint64_t ino = 0;
  unsigned state = 0;  // KEST_DI_* bits; 0: not in the difference

  bool alive() const { return (state & KEST_DI_ACTIVE) != 0; }
  bool inSnapshot() const { return (state & KEST_DI_SNAPSHOT) != 0; }
  bool replaced() const { return (state & KEST_DI_REPLACED) != 0; }
};

// A nested subvolume that is somebody's business.
struct NestedSubvolume {
  uint64_t dir = 0, id = 0;
  std::string name;
};

class TreeDiff {
 public:
  // `line`: the last transaction that both have in common. The handle must live as long.
  TreeDiff(const kest_fssnap_handle &handle, uint64_t snapshot_id, uint64_t line);

  // Commits the file system, then compares. 0 or -errno. Time is in proportion to the changes, memory a
  // few bytes a change.
  int compute();
  DiffInode find(uint64_t ino) const;
  DiffInode firstFrom(uint64_t ino) const;  // the next one by number; ino 0: none
  uint64_t line() const { return line_; }

  // What lies in the active directory `dir` and is in the difference or leads to one that is, as pairs
  // of `dir` and an inode number, in order; the second number is 0 where a junction stands in it.
  SortedPairs::Cursor leadsFrom(uint64_t dir) const { return leads_.from({dir, 0}); }
  bool leads(uint64_t dir) const;
  const std::vector<NestedSubvolume> &junctions() const { return junctions_; }  // by directory

 private:
  // Readers apart, so that one does not drive out the other's neighbours.
  struct Side {
    Side(int fd, uint64_t tree)
        : inodes(fd, tree), properties(fd, tree), entries(fd, tree, kDirectoryItems) {}
    TreeReader inodes, properties, entries;
  };

  int findLineTime();
  int findHidden();
  int collectBelow(Side *side, uint64_t dir);
  int visitTouched();
  bool untouched(const InodeItem &now, const InodeItem &then) const;
  int visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot);
  int compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot, unsigned *state);
  int visitChildren(Side *side, uint64_t dir);
  int addPending(const DirEntryItem &entry);
  int visitThese(std::vector<uint64_t> *inodes);
  int visitPending();
  int record(uint64_t ino, unsigned state);
  int addLeadsTo(uint64_t ino);
  int findJunctions();
  int climb();

  const kest_fssnap_handle &handle_;
  uint64_t line_;
  int64_t line_time_ = INT64_MIN;  // seconds; when the transaction of the line was written
  HiddenEntries hidden_;
  Side active_, snapshot_;
  bool snapshot_changed_ = false;            // the snapshot has a history of its own behind the line
  std::unordered_set<uint64_t> not_shown_;   // inodes in hidden folders, the folders included
  std::vector<uint64_t> pending_, folders_;  // inodes whose names came or went: directories apart
  PairSorter found_, ways_;
  SortedPairs inodes_;  // number and state
  SortedPairs leads_;
  std::vector<NestedSubvolume> junctions_;
};

// 1 when everything that a restore could bring back is equal in both trees: owner, mode, links and
// their names, modification time, flags, extended attributes, and size and data of all but directories,
// whose entries are not looked at. 0, or -errno.
int sameProperties(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then);

}  // namespace kest
