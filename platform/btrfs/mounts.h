// Finds the mounted btrfs file systems of this machine and the subvolumes that their mounts show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "btrfs/subvolume.h"
#include "filesystem/mount_table.h"

namespace kest {

// One mounted btrfs and its mounts in this mount namespace.
struct MountedFileSystem {
  UniqueFd fd;  // any directory on it
  Uuid fsid{};
  std::vector<Mount> mounts;  // the mount that the caller named comes first
};

// Finds the file system of `device`, which is any path on it or one of its block devices. 0; -ENODEV:
// no mounted btrfs; or the -errno of the access to `device`.
int findFileSystem(const std::string &device, MountedFileSystem *fs);

// Opens the root directory of subvolume `id`, whose path below the top is `top_path`, through the best
// mount. Prefers writable mounts; among these the one that the caller named, then one of the subvolume
// itself, then any other. Opens and checks each candidate, because a mount point can be hidden below
// another mount. Returns the descriptor and its path without a trailing slash; -ENXIO: no mount shows
// the subvolume.
int openSubvolume(const MountedFileSystem &fs, uint64_t id, const std::string &top_path,
                  std::string *path);

}  // namespace kest
