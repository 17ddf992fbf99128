// Where the data of a file lies, as the file system shows it to every user.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "base/result.h"
#include "kest.h"

struct Extent {
  int64_t start = 0, end = 0;  // in the file, bytes
  uint64_t place = 0;          // on the device, bytes; of a compressed extent that of the whole
  bool whole = false;          // compressed: only the whole has a place
  bool placed = true;          // false: the metadata hold its data
};

// The extents that hold data, in order; preallocated ones are left out. rc of a failure is the errno.
Result readExtentMap(const kest_ifile_t *file, std::vector<Extent> *extents);

using Ranges = std::vector<std::pair<int64_t, int64_t>>;  // [start, end), in order, merged

// What of [0, size) is data and not a hole, in whole blocks.
Ranges dataRanges(const std::vector<Extent> &extents, int64_t size);
// Where both files hold the same blocks at the same offsets.
Ranges sharedRanges(const std::vector<Extent> &one, const std::vector<Extent> &other);
// The first offset that is in exactly one of both; -1 none.
int64_t firstDifference(const Ranges &one, const Ranges &other);
// The first offset that is in `one` and not in `other`; -1 none.
int64_t firstMissing(const Ranges &one, const Ranges &other);
