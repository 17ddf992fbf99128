// What stands behind a kest_fssnap_handle_t.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <sys/types.h>

#include "btrfs/unique_fd.h"
#include "kest.h"

struct kest_fssnap_handle {
  kest::UniqueFd root;      // the subvolume's root directory; also the mount descriptor for handles
  dev_t device = 0;         // of every object of the subvolume
  uint64_t subvol_id = 0;   // 5: the top-level subvolume
  uint64_t fileset_id = 0;  // of a snapshot: the fileset it was asked for; else subvol_id
  std::string path;         // root directory through a mount, no trailing slash
  std::string top_path;     // path below the top of the file system, no leading slash; "" the top
  std::array<uint8_t, 16> fsid{};
  kest::UniqueFd anchor;  // see kest_anchor
  std::string anchor_path;

  bool isSnapshot() const { return subvol_id != fileset_id; }
};

namespace kest {
// Sets the text of kest_error_text for this thread.
void setErrorText(std::string text);
}  // namespace kest
