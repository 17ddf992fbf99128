// The inodes in which a fileset and one of its snapshots differ.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "btrfs/tree_items.h"
#include "libkest/fileset_handle.h"
#include "libkest/kinship.h"

namespace kest {

struct DiffInode {
  uint64_t ino = 0;
  bool alive = false;        // the fileset has it, under at least one name
  bool in_snapshot = false;  // the snapshot has an inode of this number
  bool replaced = false;     // both have one, but they are different files
  InodeItem item;            // the fileset's where it is alive, else the snapshot's
};

class TreeDiff {
 public:
  // `line`: the last transaction that both have in common. The handle must live as long.
  TreeDiff(const kest_fssnap_handle &handle, uint64_t snapshot_id, uint64_t line);

  // Commits the file system, then compares. 0 or -errno. Time is in proportion to the changes.
  int compute();
  const std::vector<DiffInode> &inodes() const { return inodes_; }  // by number
  const DiffInode *find(uint64_t ino) const;

 private:
  struct Found {
    uint64_t ino;
    InodeItem item;
  };
  struct Side {
    TreeReader inodes, properties,
        entries;                 // apart, so that one does not drive out the other's neighbours
    std::vector<Found> touched;  // inodes written after the line, by number
  };

  int findLineTime();
  int readTouched(Side *side);
  int visitTouched();
  bool untouched(const InodeItem &now, const InodeItem &then) const;
  int visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot);
  int visitChildren(Side *side, uint64_t dir);
  int visitPending();
  int dropHiddenFolders();
  int collectBelow(Side *side, uint64_t dir, std::unordered_set<uint64_t> *inodes);

  const kest_fssnap_handle &handle_;
  uint64_t line_;
  int64_t line_time_ = INT64_MIN;  // seconds; when the transaction of the line was written
  HiddenEntries hidden_;
  Side active_, snapshot_;
  std::unordered_set<uint64_t> visited_;
  std::vector<uint64_t> pending_;  // names of these inodes came or went
  std::vector<DiffInode> inodes_;
};

// 1 when everything that a restore could bring back is equal in both trees: owner, mode, links and
// their names, modification time, flags, extended attributes, and size and data of all but directories,
// whose entries are not looked at. 0, or -errno.
int sameProperties(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then);

}  // namespace kest
