// What is behind a kest_iscan_t: a scan of every inode, or of those that differ.
#pragma once

#include <cstdint>
#include <memory>

#include "filesystem/file_system.h"
#include "libkest/handle.h"

struct kest_iscan {
  std::unique_ptr<kest::InodeScan> all;          // NULL in a difference
  std::unique_ptr<kest::Difference> difference;  // NULL in a full scan
  bool computed = false;                         // the difference is
  uint64_t next_ino = 0;
  kest::SortedPairs::Cursor cursor;  // of a difference
  uint64_t cursor_ino = UINT64_MAX;  // the inode from which the cursor goes on; UINT64_MAX: none
  kest_iattr64_t attr{};             // the record last returned
};

namespace kest {

// The difference of a scan. It is computed at the first call: every process of a restore opens scans,
// and most of them never read one. 0 or -errno; -EINVAL where `scan` is NULL or a full scan.
int differenceOf(kest_iscan *scan, Difference **difference);

}  // namespace kest
