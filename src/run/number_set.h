// A set of numbers in 8 to 16 bytes each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class NumberSet {
 public:
  bool contains(uint64_t number) const;
  // True when the number was not in the set.
  bool insert(uint64_t number);

 private:
  // Where the number stands, or belongs, among `places`, whose size is a power of two.
  static size_t placeOf(const std::vector<uint64_t> &places, uint64_t number);
  void grow();

  std::vector<uint64_t> places_;  // 0: free
  size_t used_ = 0;
  bool has_zero_ = false;
};
