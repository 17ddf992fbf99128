// The scan of one pass: changed inodes into the difference table, up to the budget.
#pragma once

#include <cstdint>

#include "base/result.h"

struct ScanState {
  uint64_t maxIno = 0;        // largest inode number of either tree
  int64_t scannedInoLow = 0;  // inclusive range of the current pass
  int64_t scannedInoHigh = 0;
  bool finalPass = false;
  uint64_t itemCnt = 0;        // items of the current pass
  uint64_t scannedCount = 0;   // inodes read over all passes
  uint64_t diffItemLimit = 0;  // items that one pass may hold
  uint64_t lastIno = 0;        // inode read last
};
extern ScanState scan;

// True when the inode number lies in the current pass.
inline bool inPassRange(uint64_t ino) {
  return static_cast<int64_t>(ino) >= scan.scannedInoLow &&
         static_cast<int64_t>(ino) <= scan.scannedInoHigh;
}

// Reads changed inodes into the table until the scan ends or the limit is reached, then sets the range
// of the pass. The caller has counted `pass` up.
Result scanPass();
