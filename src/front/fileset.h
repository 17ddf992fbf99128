// A tree of files that can be restored: a btrfs subvolume, or a directory of a CephFS.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "front/top_mount.h"

namespace front {

using Uuid = std::array<uint8_t, 16>;
class SnapshotStore;

struct Fileset {
  const SnapshotStore *store = nullptr;  // not owned, and never freed
  uint64_t id = 0;
  std::string path;                 // path below the top of the file system; "" for the top level
  Uuid uuid{};                      // zeros where filesets have none
  dev_t device_number = 0;          // st_dev of all its inodes
  bool own_device = true;           // no inode outside it has that number
  UniqueFd root;                    // its root directory, open
  std::string root_path;            // path of the root directory for this process and its children
  std::string device;               // a path on the file system, for the commands' Device
  std::vector<std::string> mounts;  // mount points that show it, or a part of it, to everybody
  std::string named;                // shell words with which the user can name it to fset
  TopMount top;                     // empty where the commands need none

  // Returns the path as the commands expect it: "/" for the top level.
  std::string name() const { return path.empty() ? "/" : path; }
};

// The user's words for a fileset.
struct Place {
  std::string path;     // any path in it, or a block device; "" for the current directory
  std::string fileset;  // its path below the top, if `path` only names the file system; else ""
};

}  // namespace front
