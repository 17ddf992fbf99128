// Brings a byte range of a snapshot inode into an active one and keeps holes.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "formats/operation.h"
#include "kest.h"

// Shares [offset, offset + length), extended to whole blocks, of the snapshot's file with the active
// one, without moving data. *offset and *length receive the part that must be copied: nothing, the last
// block, or everything if the file system cannot share these files. rc of a failure is the errno. Lack
// of space and I/O errors are failures and no reason to copy.
Result shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length);

// Shares the range of a record and copies what cannot be shared. With `holeFound` the whole range is a
// hole of the snapshot's file. An incomplete copy is a failure. Failures are traced; rc is the errno.
Result copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, const Operation &range);
