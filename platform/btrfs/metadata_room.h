// How much room a btrfs has for its trees.
#pragma once

#include <cstdint>

namespace kest {

// Bytes that the metadata block groups have left, without the global reserve, and those of block groups
// that can still be made. `fd`: any real descriptor on the file system. -errno.
int64_t metadataRoom(int fd);

}  // namespace kest
