// A large sorted set of pairs of numbers, in three or four bytes a pair if the numbers are close
// together.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kest {

struct NumberPair {
  uint64_t first = 0, second = 0;
  auto operator<=>(const NumberPair &) const = default;
};

class SortedPairs {
 public:
  // Walks the set upwards. The set must outlive the cursor and not move.
  class Cursor {
   public:
    Cursor() = default;
    bool next(NumberPair *pair);  // false at the end

   private:
    friend class SortedPairs;
    const SortedPairs *set_ = nullptr;
    size_t at_ = 0;     // index of the next pair
    size_t bytes_ = 0;  // where its bytes begin
    NumberPair last_;
  };

  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  size_t memory() const { return bytes_.capacity() + blocks_.capacity() * sizeof(Block); }  // bytes
  // Returns a cursor that begins with the first pair not below `pair`.
  Cursor from(const NumberPair &pair) const;
  // Returns the second number of the first pair that begins with `first`, or 0.
  uint64_t secondOf(uint64_t first) const;
  Cursor begin() const { return from({}); }
  // Adds a pair, which must be greater than all others.
  void append(const NumberPair &pair);

 private:
  friend class PairSorter;
  struct Block {
    NumberPair first;  // stored here and not in the bytes
    size_t bytes;      // where the bytes of the following pairs begin
  };

  std::vector<Block> blocks_;
  std::vector<uint8_t> bytes_;  // differences to the previous pair
  size_t count_ = 0;
  NumberPair last_;
};

// Sorts pairs that come in any order and drops duplicates. Takes little more memory than the resulting
// set.
class PairSorter {
 public:
  void add(const NumberPair &pair);
  void add(SortedPairs &&pairs);
  SortedPairs finish();  // also empties the sorter

 private:
  void endRun();

  std::vector<NumberPair> unsorted_;
  std::vector<SortedPairs> runs_;
};

}  // namespace kest
