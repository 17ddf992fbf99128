// The mounts of this mount namespace.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace front {

struct MountLine {
  uint64_t id = 0;     // the number that statx reports
  dev_t device = 0;    // the number of the file system
  std::string type;    // "btrfs", "ceph", "fuse.ceph-fuse", ...
  std::string root;    // what the mount shows: a path below the top of the file system; "" for the top
  std::string point;   // mount point
  std::string source;  // the device as the user named it
};

// Return all mounts, or those of type btrfs, oldest first. Throw Trouble if the mount table cannot be
// read.
std::vector<MountLine> allMounts();
std::vector<MountLine> btrfsMounts();

// Returns the path at which a mount shows the object with this path below the top; "" if it does not.
std::string placeIn(const MountLine &mount, const std::string &path);

}  // namespace front
