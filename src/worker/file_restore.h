// Making files again and copying data back.
#pragma once

#include <cstdint>
#include <string>

// Op 1 and, in phase 8, the file that linkFile needs. 0 or an error code, with errno set.
int restoreDelFile(const std::string &path, uint64_t ino, int64_t offset, uint64_t length, int32_t holeFound,
                   int32_t clone);

// Op 2. 0 or an error code, with errno set.
int restoreDiffFile(const std::string &path, uint64_t ino, int64_t offset, uint64_t length,
                    int32_t holeFound, int32_t clone);
