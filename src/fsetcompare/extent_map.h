// Reads where the data of a file lies, with calls that every program can make.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "base/result.h"
#include "kest.h"

struct Extent {
  int64_t start = 0, end = 0;  // bytes in the file
  uint64_t place = 0;  // byte offset on the device; for a compressed extent that of the whole extent
  bool whole = false;  // compressed, so parts of it have no place of their own
  bool placed = true;  // false: inline extent, whose data lies in the metadata
};

// Reads the extents that hold data, in order, without preallocated ones. rc of a failure is the errno.
Result readExtentMap(const kest_ifile_t *file, std::vector<Extent> *extents);

using Ranges = std::vector<std::pair<int64_t, int64_t>>;  // [start, end), in order and merged

// Returns the parts of [0, size) that are data and not holes, in whole blocks.
Ranges dataRanges(const std::vector<Extent> &extents, int64_t size);
// Returns the ranges in which both files hold the same blocks at the same offsets.
Ranges sharedRanges(const std::vector<Extent> &one, const std::vector<Extent> &other);
// Returns the first offset that lies in exactly one of both, or -1.
int64_t firstDifference(const Ranges &one, const Ranges &other);
// Returns the first offset that lies in `one` and not in `other`, or -1.
int64_t firstMissing(const Ranges &one, const Ranges &other);
