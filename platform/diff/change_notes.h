// What a comparison learned about single inodes, kept for the walk that follows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "diff/entry_pairs.h"
#include "kest.h"

namespace kest {

// Holds the first kMost noted inodes of each kind, and directories with about as many entries, in about
// 10 MiB. The walk reads the rest from the trees.
class ChangeNotes {
 public:
  static constexpr size_t kMost = 1 << 16;

  bool full() const { return notes_.size() >= kMost; }
  void add(uint64_t ino, const kest_change_t &change) { notes_.push_back({ino, change}); }
  // Notes a file that only the snapshot has.
  void addLost(uint64_t ino, const kest_lost_t &lost) { lost_.push_back({ino, lost}); }
  bool lostFull() const { return lost_.size() >= kMost; }
  // Takes over the notes of another object as far as there is room.
  void take(ChangeNotes *other);
  // Call this after the last add() and before the first find().
  void sort();
  bool find(uint64_t ino, kest_change_t *change) const;
  bool findLost(uint64_t ino, kest_lost_t *lost) const;

  // Notes the entries that only one of both directories of this number has.
  void addEntries(uint64_t dir, const EntryDifference &entries);
  const std::unordered_map<uint64_t, EntryDifference> &directories() const { return directories_; }
  const EntryDifference *findEntries(uint64_t dir) const;  // NULL if they were not noted

 private:
  template <typename Fact>
  struct Note {
    uint64_t ino;
    Fact fact;
  };
  template <typename Fact>
  static void takeSome(std::vector<Note<Fact>> *notes, std::vector<Note<Fact>> *others);
  template <typename Fact>
  static bool findIn(const std::vector<Note<Fact>> &notes, uint64_t ino, Fact *fact);

  std::vector<Note<kest_change_t>> notes_;
  std::vector<Note<kest_lost_t>> lost_;
  std::unordered_map<uint64_t, EntryDifference> directories_;
  size_t entries_ = 0;  // number of entries in all directories
};

}  // namespace kest
