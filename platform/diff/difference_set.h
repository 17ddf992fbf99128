// Which inodes of a fileset and a snapshot differ, and through which directories a walk reaches them.
// Holds only numbers, three or four bytes each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "diff/sorted_pairs.h"
#include "kest.h"

namespace kest {

// Further bits of a state, beside KEST_DI_*. They describe the fileset's inode, and only the platform
// reads them.
inline constexpr unsigned kDiffRegular = 1u << 8;  // a regular file
inline constexpr unsigned kDiffNoCow = 1u << 9;    // a file whose blocks are overwritten in place
inline constexpr unsigned kDiffPublic = 0xff;      // KEST_DI_*

struct DiffInode {
  uint64_t ino = 0;
  unsigned state = 0;  // KEST_DI_* and kDiff* bits; 0: not in the difference

  bool alive() const { return (state & KEST_DI_ACTIVE) != 0; }
  bool inSnapshot() const { return (state & KEST_DI_SNAPSHOT) != 0; }
  bool replaced() const { return (state & KEST_DI_REPLACED) != 0; }
};

// A nested fileset that a restore must handle.
struct Junction {
  uint64_t dir = 0, id = 0;  // directory in which it is linked; its id
  std::string name;
  // Directory and name in the snapshot; home_dir is 0 if the snapshot does not have it.
  uint64_t home_dir = 0;
  std::string home_name;
};

class DifferenceSet {
 public:
  // Pairs of an inode number and its state.
  void setInodes(SortedPairs inodes) { inodes_ = std::move(inodes); }
  // Pairs of an active directory and an inode in it that differs or leads to a difference. The second
  // number is 0 if a junction is linked in the directory.
  void setLeads(SortedPairs leads) { leads_ = std::move(leads); }
  // Pairs of an inode of the snapshot and one of the fileset that count as one. Neither is in the set.
  void setTwins(SortedPairs twins) { twins_ = std::move(twins); }
  void setJunctions(std::vector<Junction> junctions);
  // Adds bits to the state of an inode in the set. Meant for few inodes.
  void addState(uint64_t ino, unsigned bits) { added_[ino] |= bits; }

  size_t size() const { return inodes_.size(); }
  DiffInode find(uint64_t ino) const;
  DiffInode firstFrom(uint64_t ino) const;  // the first inode with at least this number; ino 0: none
  // Returns a cursor over the inodes with at least this number, in order. The set must outlive it and
  // not move.
  SortedPairs::Cursor inodesFrom(uint64_t ino) const { return inodes_.from({ino, 0}); }
  DiffInode next(SortedPairs::Cursor *cursor) const;  // ino 0: there is none
  // Returns true if something in the active directory `dir` differs or leads to a difference.
  bool leads(uint64_t dir) const;
  // Returns a cursor over the leads of `dir` and of all later directories. The set must outlive it and
  // not move.
  SortedPairs::Cursor leadsFrom(uint64_t dir) const { return leads_.from({dir, 0}); }
  // Returns the active inode that is the twin of the snapshot's inode `ino`, or 0.
  uint64_t twinOf(uint64_t ino) const { return twins_.secondOf(ino); }
  std::span<const Junction> junctionsIn(uint64_t dir) const;
  const Junction *junction(uint64_t id) const;  // NULL if there is none with this id

 private:
  SortedPairs inodes_, leads_, twins_;
  std::unordered_map<uint64_t, unsigned> added_;  // added states by inode number
  std::vector<Junction> junctions_;               // sorted by directory
};

}  // namespace kest
