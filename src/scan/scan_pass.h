// The scan of one pass: fills the difference table with changed inodes, up to the memory budget.
#pragma once

#include <cstdint>

#include "base/result.h"

struct ScanState {
  uint64_t maxIno = 0;         // largest inode number of both trees
  int64_t scannedInoLow = 0;   // first number of the current pass
  int64_t scannedInoHigh = 0;  // last number of the current pass, inclusive
  bool finalPass = false;
  uint64_t itemCnt = 0;        // items of the current pass
  uint64_t scannedCount = 0;   // inodes read in all passes
  uint64_t diffItemLimit = 0;  // items that one pass may hold
  uint64_t lastIno = 0;        // inode read last
};
extern ScanState scan;

// Returns true if the inode number belongs to the current pass.
inline bool inPassRange(uint64_t ino) {
  return static_cast<int64_t>(ino) >= scan.scannedInoLow &&
         static_cast<int64_t>(ino) <= scan.scannedInoHigh;
}

// Reads changed inodes into the table until the scan ends or the table is full, then sets the range of
// the pass. The caller has already incremented `pass`.
Result scanPass();
