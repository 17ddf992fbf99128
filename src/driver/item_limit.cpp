#include <limits>

#include "driver/memory_budget.h"

namespace {
constexpr uint64_t kItemBytes = 24;
}

uint64_t diffItemLimit(uint64_t mem) {
  const uint64_t most = std::numeric_limits<uint64_t>::max() / 1024;
  return (mem > most ? most : mem) * 1024 / kItemBytes;
}
