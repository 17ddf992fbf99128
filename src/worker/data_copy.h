// Bringing a byte range of a snapshot inode into an active one, holes as holes.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "formats/operation.h"
#include "kest.h"

// Shares [offset, offset + length) of the snapshot's file with the active one, the rest of its blocks
// included: no data moves. Leaves in both what has to be copied: nothing, the last block, or, where the
// file system cannot share the two, all of it. rc of a failure is the errno; no space and I/O errors
// are never a reason to copy.
Result shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length);

// Shares the range of a record, and copies what cannot be shared; with `holeFound` the whole range is a
// hole of the snapshot's file. A copy that did not do all its bytes is a failure. Failures are traced;
// their rc is the errno.
Result copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, const Operation &range);
