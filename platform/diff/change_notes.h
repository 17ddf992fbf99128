// What a comparison learned about single inodes, kept for the walk that follows it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kest.h"

namespace kest {

// Holds the first kMost inodes that are noted, 4 MiB of them. The walk reads what it asks about the
// rest from the trees.
class ChangeNotes {
 public:
  static constexpr size_t kMost = 1 << 16;

  bool full() const { return notes_.size() >= kMost; }
  void add(uint64_t ino, const kest_change_t &change) { notes_.push_back({ino, change}); }
  // Takes over the notes of another one, as far as there is room.
  void take(ChangeNotes *other);
  // To be called after the last add() and before the first find().
  void sort();
  bool find(uint64_t ino, kest_change_t *change) const;

 private:
  struct Note {
    uint64_t ino;
    kest_change_t change;
  };
  std::vector<Note> notes_;
};

}  // namespace kest
