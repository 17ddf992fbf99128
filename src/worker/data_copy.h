// Copying a byte range from a snapshot inode into an active one, holes as holes.
#pragma once

#include <cstdint>

#include "kest.h"

// `holeFound` (may be null) non-zero: the whole range is a hole of the snapshot's file. 0, or an errno; a
// copy that did not do all its bytes is never 0.
int copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length,
                     const int32_t *holeFound, bool clone);
