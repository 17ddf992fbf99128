// Aggregate numbers, which say what records the policy engine keeps together, and the count of
// operations.
#pragma once

#include <cstdint>

struct AggregateCounter {
  int64_t iAgg = 0;
  int32_t uCount = 0;

  // A record of its own, or the first of a data walk: a full aggregate is followed by the next.
  void countRecord(int32_t unit_size) {
    if (++uCount > unit_size) {
      ++iAgg;
      uCount = 0;
    }
  }
  // A further range of the same file: an aggregate of its own.
  void startAggregate() {
    ++iAgg;
    uCount = 0;
  }
};

// Process-wide counters: `main` numbers opList and the per-directory lists, `regMv` regMoveList,
// `regPend` the side lists (regPendingMvList, dir.new, link.ino, clone lists).
struct Aggregates {
  AggregateCounter main, regMv, regPend;
};
extern Aggregates aggregates;

extern int64_t opCount;  // operations written to lists

// Adds one; prints message 509 when `force`, or in the master at every 1000th.
void reportOpCount(bool force);
