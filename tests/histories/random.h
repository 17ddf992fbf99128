// random.h: a random number generator that gives the same numbers on every machine and with every
// library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace histories {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t next() {  // splitmix64
    state_ += 0x9e3779b97f4a7c15ull;
    uint64_t x = state_;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
  }
  uint64_t below(uint64_t limit) { return next() % limit; }
  uint64_t between(uint64_t least, uint64_t most) { return least + below(most - least + 1); }
  bool chance(unsigned percent) { return below(100) < percent; }
  template <typename T>
  const T &pick(const std::vector<T> &from) {
    return from[below(from.size())];
  }

 private:
  uint64_t state_;
};

}  // namespace histories
