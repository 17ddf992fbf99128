// Large sorted sets of pairs of numbers, in two or three bytes a pair where the numbers are close
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
  // Walks the set upwards. The set must live as long and not move.
  class Cursor {
   public:
    Cursor() = default;
    bool next(NumberPair *pair);  // false at the end

   private:
    friend class SortedPairs;
    const SortedPairs *set_ = nullptr;
    size_t at_ = 0;     // of the next pair
    size_t bytes_ = 0;  // where its bytes begin
    NumberPair last_;
  };

  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  size_t memory() const { return bytes_.capacity() + blocks_.capacity() * sizeof(Block); }  // bytes
  // Begins with the first pair that is not below `pair`.
  Cursor from(const NumberPair &pair) const;
  // The second number of the first pair that begins with `first`; 0 where there is none.
  uint64_t secondOf(uint64_t first) const;
  Cursor begin() const { return from({}); }
  // Adds a pair that is above all others.
  void append(const NumberPair &pair);

 private:
  friend class PairSorter;
  struct Block {
    NumberPair first;  // not among the bytes
    size_t bytes;      // where those of the pairs after it begin
  };

  std::vector<Block> blocks_;
  std::vector<uint8_t> bytes_;  // differences to the pair before
  size_t count_ = 0;
  NumberPair last_;
};

// Sorts pairs that come in any order, and drops those that come again. Takes little more memory than
// the sets that it makes.
class PairSorter {
 public:
  void add(const NumberPair &pair);
  void add(SortedPairs &&pairs);
  SortedPairs finish();  // and leaves the sorter empty

 private:
  void endRun();

  std::vector<NumberPair> unsorted_;
  std::vector<SortedPairs> runs_;
};

}  // namespace kest
