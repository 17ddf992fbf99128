// Bringing a byte range of a snapshot inode into an active one, holes as holes.
#pragma once

#include <cstdint>

#include "kest.h"

// `holeFound` (may be null) non-zero: the whole range is a hole of the snapshot's file. 0, or an errno;
// a copy that did not do all its bytes is never 0. `clone`: the file is a clone or a clone parent; its
// blocks are shared with the snapshot's file instead of copied, wherever that can be done, so that it
// goes on sharing them with its kin.
int copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length,
                     const int32_t *holeFound, bool clone);
