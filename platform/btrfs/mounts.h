// The mounted btrfs file systems of this machine, and the subvolumes that their mounts show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "btrfs/subvolume.h"
#include "filesystem/mount_table.h"

namespace kest {

// One mounted btrfs and everything that shows it in this mount namespace.
struct MountedFileSystem {
  UniqueFd fd;  // some directory on it
  Uuid fsid{};
  std::vector<Mount> mounts;  // the one that the argument named first
};

// The file system of `device`: any path on it, or one of its block devices. 0; -ENODEV when it is no
// mounted btrfs; -errno of the access to `device`.
int findFileSystem(const std::string &device, MountedFileSystem *fs);

// Opens the root directory of subvolume `id`, whose path below the top is `top_path`, through the best
// of the mounts: a writable one before any that is not, and of several the one that the argument named,
// one of the subvolume itself, any. Candidates are opened and checked, so that a mount point hidden
// below another mount is not taken. The descriptor and its path (no trailing slash); -ENXIO when no
// mount shows it.
int openSubvolume(const MountedFileSystem &fs, uint64_t id, const std::string &top_path,
                  std::string *path);

}  // namespace kest
