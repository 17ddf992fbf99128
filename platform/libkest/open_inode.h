// What stands behind a kest_ifile_t.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "btrfs/unique_fd.h"
#include "kest.h"
#include "libkest/entry_list.h"
#include "libkest/extent_diff.h"
#include "libkest/lead_listing.h"

namespace kest {

// Ranges of a file that differ from the snapshot's, as they were when [from, to) was compared.
struct ChangedRanges {
  const kest_iscan *scan = nullptr;  // nullptr: nothing compared yet
  uint64_t from = 0, to = 0;
  std::vector<ExtentRange> ranges;
};

struct OpenInode : kest_ifile {
  kest_fssnap_handle *handle = nullptr;  // not owned
  UniqueFd path_fd;                      // O_PATH, always open
  bool path_fd_is_real = false;          // it is open for reading and writing instead
  UniqueFd read_fd;                      // files and directories, opened at the first read
  UniqueFd write_fd;                     // opened at the first write
  kest_timestruc64_t created{};          // creation time
  bool listed = false;                   // directories: entries hold the listing
  EntryList entries;
  bool compared = false;  // directories: changed holds the changed entries
  EntryList changed;
  std::unique_ptr<LeadListing> leads;  // directories: what leads to a change, once asked for
  ChangedRanges changed_ranges;
  std::optional<bool> carries_blob;  // whether the attribute blob was not empty when it was last asked
  bool capability_known = false;
  std::optional<std::string> capability;  // security.capability before the first write

  // Any descriptor of the inode: the one for reading, which costs less to work with, where it is open.
  int anyFd() const { return read_fd ? read_fd.get() : path_fd.get(); }
  // Descriptor for reading file data, directory entries or inode flags; -errno.
  int readFd();
  // Descriptor for writing file data; -EROFS where the immutable or append-only flag forbids it;
  // -errno.
  int writeFd();
};

inline OpenInode *openInode(kest_ifile_t *file) {
  return static_cast<OpenInode *>(file);
}
inline const OpenInode *openInode(const kest_ifile_t *file) {
  return static_cast<const OpenInode *>(file);
}

}  // namespace kest

static_assert(offsetof(kest_ifile, if_gen16) == 16 && offsetof(kest_ifile, if_mode) == 36);
