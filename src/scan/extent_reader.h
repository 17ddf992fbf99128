// What lies at an offset of an open inode, relative to a scan.
#pragma once

#include <cstdint>

#include "kest.h"

// Finds the extent at or after *offset and below the smaller of `end` (0: file size) and the size;
// moves *offset up to its start, sets *hole, and returns its length (no buffer) or the bytes read
// (buffer). 0: nothing more. -1: errno 191 bad scan, 192 bad inode, EISDIR, or that of the library.
int64_t readExtent(kest_ifile_t *file, kest_iscan_t *iscan, void *buffer, int64_t size, int64_t *offset,
                   int64_t end, int *hole);
