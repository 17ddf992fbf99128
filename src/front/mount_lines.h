// The btrfs mounts of this mount namespace.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace front {

struct MountLine {
  uint64_t id = 0;     // as statx reports it
  std::string root;    // what it shows: a path below the top of the file system, "" the top
  std::string point;   // where
  std::string source;  // the device, as it was named
};

// All mounts of type btrfs, the oldest first. Throws Trouble where the table cannot be read.
std::vector<MountLine> btrfsMounts();

// Where a mount shows the object with this path below the top; "" where it does not.
std::string placeIn(const MountLine &mount, const std::string &path);

}  // namespace front
