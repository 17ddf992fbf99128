// The subvolume behind a fileset or snapshot, held open.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "base/unique_fd.h"
#include "btrfs/subvolume.h"

namespace kest {

struct TreeRoot {
  UniqueFd fd;              // the root directory, really open; any descriptor opens file handles
  dev_t device = 0;         // of every object of the subvolume
  uint64_t subvol_id = 0;   // 5: the top-level subvolume
  uint64_t fileset_id = 0;  // of a snapshot: the fileset for which it was opened; else subvol_id
  std::string path;         // root directory through a mount, no trailing slash; "/" the machine's root
  std::string top_path;     // path below the top of the file system, no leading slash; "" the top
  Uuid fsid{};

  bool isSnapshot() const { return subvol_id != fileset_id; }
  std::string displayName() const { return top_path.empty() ? "/" : top_path; }
};

}  // namespace kest
