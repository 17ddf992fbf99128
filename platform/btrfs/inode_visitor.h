// Decides about single inodes whether they differ between a fileset and a snapshot: one thread's part
// of a comparison of trees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <unordered_set>
#include <vector>

#include "btrfs/entry_diff.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_search.h"
#include "btrfs/tree_sweep.h"
#include "diff/change_notes.h"
#include "diff/sorted_pairs.h"

namespace kest {

// Bits for an inode of both trees, besides the KEST_DI_* and kDiff* bits.
inline constexpr unsigned kDiffers = 1u << 16;    // it is in the difference
inline constexpr unsigned kDoubtful = 1u << 17;   // twins decide whether it is
inline constexpr unsigned kRelations = 1u << 18;  // only its parents or clone attributes differ

// The bits of a DiffInode that tell of the fileset's inode alone.
unsigned kindOf(const InodeItem &active);

// Returns true for a file with several names. `item` may be NULL.
bool severalNames(const InodeItem *item);

void sortOnce(std::vector<uint64_t> *numbers);  // and drops repeated ones

// One tree. It has readers for three purposes, so that none drives out the cached items that another
// one will need.
struct Side {
  Side(int fd, uint64_t tree)
      : inodes(fd, tree), properties(fd, tree), entries(fd, tree, kDirectoryItems) {}
  void lookIn(const TreeWindow *window) {
    for (TreeReader *reader : {&inodes, &properties, &entries}) reader->lookIn(window);
  }
  TreeReader inodes, properties, entries;
};

// What all threads of a comparison know. None changes it while they run.
struct Common {
  const TreeRoot &root;
  const uint64_t snapshot_id, line;
  const HiddenEntries hidden;
  int64_t line_time = INT64_MIN;                // seconds; when the transaction of the line was written
  bool snapshot_changed = false;                // the snapshot was written to after the line
  std::unordered_set<uint64_t> not_shown = {};  // inodes in hidden folders, and these folders
};

// Decides about inodes and keeps what it found. All calls that can fail return 0 or -errno.
class InodeVisitor {
 public:
  explicit InodeVisitor(const Common &common)
      : common_(common),
        active_(common.root.fd.get(), common.root.subvol_id),
        snapshot_(common.root.fd.get(), common.snapshot_id) {}

  // Takes chunk after chunk until there is none left.
  int visitTouched(TouchedChunks *chunks);
  // Visits inodes by number. Sorted numbers are cheaper, because neighbours are read together.
  int visitThese(const uint64_t *begin, const uint64_t *end);
  int record(uint64_t ino, unsigned state);
  int addLeadsTo(uint64_t ino);

  Side &active() { return active_; }
  Side &snapshot() { return snapshot_; }

  // What was found. Inodes whose names came or went wait to be visited, directories apart from the
  // rest.
  std::vector<uint64_t> pending, folders;
  PairSorter found, leads;
  PairSorter candidates;  // pairs of one name that may be twins: the snapshot's inode, the fileset's
  PairSorter doubts;      // inodes that differ unless some pairs are twins
  PairSorter needed;      // pairs of a directory and an inode of the snapshot that must have a twin
  ChangeNotes changes;
  std::map<uint64_t, NameRef> homes;  // where the snapshot has a nested subvolume, by its id

 private:
  int visitChunk(const TouchedChunk &chunk);
  int readThen(uint64_t ino);
  bool untouched(const InodeItem &now, const InodeItem &then) const;
  int visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot);
  int compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot, unsigned *state);
  int noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot);
  int noteLost(uint64_t ino, const InodeItem &snapshot);
  bool pairEntries(uint64_t dir, const EntryDifference &entries);
  int visitChildren(Side *side, uint64_t dir);
  int addPending(const DirEntry &entry);
  void noteHome(uint64_t dir, const DirEntry &entry);

  const Common &common_;
  Side active_, snapshot_;
  TreeWindow then_;  // the snapshot's items beside a chunk that was read whole
};

}  // namespace kest
