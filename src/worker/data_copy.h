// Bringing a byte range of a snapshot inode into an active one, holes as holes.
#pragma once

#include <cstdint>

#include "kest.h"

// Shares [offset, offset + length) of the snapshot's file with the active one, the rest of its blocks
// included: no data moves. Leaves in both what has to be copied: nothing, the last block, or, where the
// file system cannot share the two, all of it. 0 or an errno; no space and I/O errors are never a
// reason to copy.
int shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length);

// Shares the range, and copies what cannot be shared. `holeFound` (may be null) non-zero: the whole
// range is a hole of the snapshot's file. 0, or an errno; a copy that did not do all its bytes is never
// 0. `clone` (the file is a clone or a clone parent) is for the trace alone.
int copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length,
                     const int32_t *holeFound, bool clone);
