// What is mounted, and the btrfs file systems among it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "btrfs/subvolume.h"
#include "btrfs/unique_fd.h"

namespace kest {

struct Mount {
  int id = 0, parent_id = 0;  // parent: the mount that it stands on
  bool btrfs = false;
  unsigned major_no = 0, minor_no = 0;  // of the superblock
  std::string root;                     // path below the top of its file system, no leading slash
  std::string point;                    // mount point
  bool read_only = false;
};

// One mounted btrfs and everything that shows it in this mount namespace.
struct MountedFileSystem {
  UniqueFd fd;  // some directory on it
  Uuid fsid{};
  std::vector<Mount> mounts;  // preferred one first: the mount that the argument named
};

// A line of /proc/self/mountinfo.
bool parseMount(std::string_view line, Mount *mount);
// Every mount of this namespace. 0 or -errno.
int readMounts(std::vector<Mount> *mounts);

// The file system of `device`: any path on it, or one of its block devices. 0; -ENODEV when it is no
// mounted btrfs; -errno of the access to `device`.
int findFileSystem(const std::string &device, MountedFileSystem *fs);

// Opens the root directory of subvolume `id`, whose path below the top is `top_path`, through the best
// of the mounts: the one that the argument named, one of the subvolume itself, a writable one, any.
// Candidates are opened and checked, so that a mount point hidden below another mount is not taken. The
// descriptor and its path (no trailing slash); -ENXIO when no mount shows it.
int openSubvolume(const MountedFileSystem &fs, uint64_t id, const std::string &top_path,
                  std::string *path);

}  // namespace kest
