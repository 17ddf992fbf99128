// What the names of an open directory mean now.
#pragma once

#include <vector>

#include "btrfs/file_handle.h"
#include "btrfs/subvolume.h"
#include "kest.h"

namespace kest {

struct OpenInode;

// The kernel lists nested subvolumes by their subvolume id,
// which may also be an inode number, but a handle tells what they are.
class EntryCheck {
 public:
  explicit EntryCheck(const OpenInode &dir) : dir_(dir) {}

  // Fills in the generation, or marks the record as a junction. 1; 0 when the entry is gone by now;
  // -errno.
  int resolve(kest_direntx64_t *record);
  // Whether the record's name still means its inode or junction: 1, and the generation is filled in; 0;
  // -errno.
  int stillMeans(kest_direntx64_t *record);

 private:
  int find(const char *name, InodeAddress *address, bool *covered);
  int resolveCovered(kest_direntx64_t *record);

  const OpenInode &dir_;
  InodeAddress self_;  // of the directory; ino 0: not yet asked for
  std::vector<Subvolume> nested_;
  bool nested_known_ = false;
};

}  // namespace kest
