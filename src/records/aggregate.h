// Aggregate numbers, which keep records together in one batch of the policy engine, and the count of
// operations.
#pragma once

#include <cstdint>

struct AggregateCounter {
  int64_t iAgg = 0;
  int32_t uCount = 0;

  // For a record of its own, or the first one of a file's data. Starts the next aggregate when this one
  // is full.
  void countRecord(int32_t unit_size) {
    if (++uCount > unit_size) {
      ++iAgg;
      uCount = 0;
    }
  }
  // For a further range of the same file. Each gets its own aggregate, so that several workers share
  // the file.
  void startAggregate() {
    ++iAgg;
    uCount = 0;
  }
};

// The counters of this process: `main` for opList and the lists of deleted and new directories, `regMv`
// for regMoveList, `regPend` for the side lists (regPendingMvList, dir.new, link.ino, clone lists).
struct Aggregates {
  AggregateCounter main, regMv, regPend;
};
extern Aggregates aggregates;

extern int64_t opCount;  // operations written to lists

// Counts one operation. Prints message 509 if `force` is set, and in the master after every 1000th.
void reportOpCount(bool force);
