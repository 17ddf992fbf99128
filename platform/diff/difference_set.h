// Which inodes of a fileset and a snapshot differ, and where a walk has to go to meet them: numbers
// alone, two or three bytes each.
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

// Bits of a state beside KEST_DI_*, which only a platform reads. They tell of the fileset's inode.
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

// A nested fileset that the restore has to act on.
struct Junction {
  uint64_t dir = 0, id = 0;  // the directory that it is linked in; its number
  std::string name;
  // Where the snapshot has it: directory and name; 0 where the snapshot does not have it.
  uint64_t home_dir = 0;
  std::string home_name;
};

class DifferenceSet {
 public:
  // Pairs of inode number and state.
  void setInodes(SortedPairs inodes) { inodes_ = std::move(inodes); }
  // Pairs of an active directory and an inode in it that differs or leads to one that does; the second
  // number is 0 where a junction is linked in the directory.
  void setLeads(SortedPairs leads) { leads_ = std::move(leads); }
  // Pairs of an inode of the snapshot and one of the fileset that count as one; neither is in the set.
  void setTwins(SortedPairs twins) { twins_ = std::move(twins); }
  void setJunctions(std::vector<Junction> junctions);
  // Adds bits to the state of an inode of the set, for few of them.
  void addState(uint64_t ino, unsigned bits) { added_[ino] |= bits; }

  size_t size() const { return inodes_.size(); }
  DiffInode find(uint64_t ino) const;
  DiffInode firstFrom(uint64_t ino) const;  // the next one by number; ino 0: none
  // The inodes from number `ino` on, in order. The set must live as long and not move.
  SortedPairs::Cursor inodesFrom(uint64_t ino) const { return inodes_.from({ino, 0}); }
  DiffInode next(SortedPairs::Cursor *cursor) const;  // ino 0: there is none
  // Whether something in the active directory `dir` differs or leads to a difference.
  bool leads(uint64_t dir) const;
  // The leads of `dir` and of the directories after it, in order. The set must live as long and not
  // move.
  SortedPairs::Cursor leadsFrom(uint64_t dir) const { return leads_.from({dir, 0}); }
  // The active inode that is the twin of inode `ino` of the snapshot; 0: none.
  uint64_t twinOf(uint64_t ino) const { return twins_.secondOf(ino); }
  std::span<const Junction> junctionsIn(uint64_t dir) const;
  const Junction *junction(uint64_t id) const;  // NULL: there is none of this number

 private:
  SortedPairs inodes_, leads_, twins_;
  std::unordered_map<uint64_t, unsigned> added_;  // states, by inode
  std::vector<Junction> junctions_;               // by directory
};

}  // namespace kest
