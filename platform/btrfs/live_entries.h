// Finds what the names in an open directory mean now.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/file_handle.h"
#include "btrfs/tree_root.h"
#include "kest.h"

namespace kest {

// The kernel lists a nested subvolume under its subvolume id, which can also be the number of an inode.
// Only the file handle of the entry tells them apart.
class LiveEntries {
 public:
  // `dir_fd` is the directory `dir_ino` of the tree (O_PATH suffices). It and `root` must outlive this
  // object.
  LiveEntries(const TreeRoot &root, int dir_fd, uint64_t dir_ino)
      : root_(root), dir_fd_(dir_fd), dir_ino_(dir_ino) {}

  // Fills in the generation, or marks the record as a junction. 1; 0: the entry is gone; or -errno.
  int resolve(kest_direntx64_t *record);
  // Returns 1, and fills in the generation, if the record's name still leads to its inode or junction;
  // else 0 or -errno.
  int stillMeans(kest_direntx64_t *record);

 private:
  int find(const char *name, InodeAddress *address, bool *covered);
  int resolveCovered(kest_direntx64_t *record);

  const TreeRoot &root_;
  int dir_fd_;
  uint64_t dir_ino_;
  InodeAddress self_;  // address of the directory; ino 0: not read yet
  std::vector<Subvolume> nested_;
  bool nested_known_ = false;
};

}  // namespace kest
