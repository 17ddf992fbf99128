// What the names in an open directory mean now.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/file_handle.h"
#include "btrfs/tree_root.h"
#include "kest.h"

namespace kest {

// The kernel lists nested subvolumes by their subvolume id, which may also be an inode number. The file
// handle of an entry says what it is.
class LiveEntries {
 public:
  // `dir_fd`: the directory `dir_ino` of the tree, O_PATH will do. Both must live as long.
  LiveEntries(const TreeRoot &root, int dir_fd, uint64_t dir_ino)
      : root_(root), dir_fd_(dir_fd), dir_ino_(dir_ino) {}

  // Fills in the generation, or marks the record as a junction. 1; 0 when the entry is gone by now;
  // -errno.
  int resolve(kest_direntx64_t *record);
  // Whether the record's name still means its inode or junction: 1, and the generation is filled in; 0;
  // -errno.
  int stillMeans(kest_direntx64_t *record);

 private:
  int find(const char *name, InodeAddress *address, bool *covered);
  int resolveCovered(kest_direntx64_t *record);

  const TreeRoot &root_;
  int dir_fd_;
  uint64_t dir_ino_;
  InodeAddress self_;  // of the directory; ino 0: not read yet
  std::vector<Subvolume> nested_;
  bool nested_known_ = false;
};

}  // namespace kest
