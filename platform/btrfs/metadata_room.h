// Measures the room that a btrfs has for its trees.
#pragma once

#include <cstdint>

namespace kest {

// Returns the free bytes of the metadata block groups, without the global reserve, and of block groups
// that can still be made; or -errno. `fd` is any descriptor on the file system, except O_PATH.
int64_t metadataRoom(int fd);

}  // namespace kest
