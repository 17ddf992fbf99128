// The object behind a kest_iscan_t: a scan of all inodes, or of those that differ.
#pragma once

#include <cstdint>
#include <memory>

#include "filesystem/file_system.h"
#include "libkest/handle.h"

struct kest_iscan {
  std::unique_ptr<kest::InodeScan> all;          // NULL in a difference scan
  std::unique_ptr<kest::Difference> difference;  // NULL in a full scan
  bool computed = false;                         // the difference has been computed
  uint64_t next_ino = 0;
  kest::SortedPairs::Cursor cursor;  // in the difference
  uint64_t cursor_ino = UINT64_MAX;  // the cursor continues at this inode; UINT64_MAX: no cursor
  kest_iattr64_t attr{};             // the record returned last
};

namespace kest {

// Returns the difference of a scan, which the first call computes: every process of a restore opens
// scans, but most of them never read one. 0 or -errno; -EINVAL: `scan` is NULL or a full scan.
int differenceOf(kest_iscan *scan, Difference **difference);

}  // namespace kest
