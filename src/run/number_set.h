// A hash set of numbers that takes 8 to 16 bytes for each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class NumberSet {
 public:
  bool contains(uint64_t number) const;
  // Returns true if the number was not in the set.
  bool insert(uint64_t number);

 private:
  // Returns the index at which `number` stands or belongs in `places`, whose size is a power of two.
  static size_t placeOf(const std::vector<uint64_t> &places, uint64_t number);
  void grow();

  std::vector<uint64_t> places_;  // 0 marks a free place
  size_t used_ = 0;
  bool has_zero_ = false;
};
