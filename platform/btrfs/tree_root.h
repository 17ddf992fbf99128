// The subvolume of a fileset or snapshot, held open.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "base/unique_fd.h"
#include "btrfs/subvolume.h"

namespace kest {

struct TreeRoot {
  UniqueFd fd;              // root directory, not O_PATH, so that it can open file handles
  dev_t device = 0;         // st_dev of all its objects
  uint64_t subvol_id = 0;   // 5: top-level subvolume
  uint64_t fileset_id = 0;  // for a snapshot, the fileset for which it was opened; else subvol_id
  std::string path;         // root directory through a mount, without trailing slash, or "/"
  std::string top_path;  // path below the top of the file system, without leading slash; "" for the top
  Uuid fsid{};

  bool isSnapshot() const { return subvol_id != fileset_id; }
  std::string displayName() const { return top_path.empty() ? "/" : top_path; }
};

}  // namespace kest
