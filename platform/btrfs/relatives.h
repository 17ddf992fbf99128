// How a fileset is related to the other subvolumes of its file system: since when it and a snapshot
// differ, and which nested subvolumes and folders a restore leaves alone.
#pragma once

#include <cstdint>
#include <string_view>

#include "btrfs/tree_root.h"

namespace kest {

// Remembers, for the whole process, the snapshot that a fileset is being compared with.
void rememberSnapshot(const TreeRoot &fileset_or_snapshot, uint64_t snapshot_id, uint64_t line);

// That snapshot: the one remembered last. 0 when there was none.
uint64_t currentSnapshot(const TreeRoot &root);

// The last transaction that the subvolume has in common with `snapshot_id`. 0; -EINVAL when the two are
// not related; -errno.
int findLine(const TreeRoot &root, uint64_t snapshot_id, uint64_t *line);

// Decides which entries of the fileset and of one of its snapshots a restore leaves alone: snapshots of
// the fileset, the folder .snapshots at its top while it holds some, the folders .unlinked and .fset at
// the top of the file system, and nested subvolumes whose place has not changed since the snapshot.
class HiddenEntries {
 public:
  // `snapshot_id` 0: there is nothing to compare with. `root` must live as long.
  HiddenEntries(const TreeRoot &root, uint64_t snapshot_id) : root_(root), snapshot_id_(snapshot_id) {}

  // A file or directory of this name and type (DT_*) in directory `dir`. 1, 0 or -errno.
  int hidesName(uint64_t dir, std::string_view name, uint8_t type) const;
  // Nested subvolume `id`, which is linked as `name` in directory `dir`, or whose stub the snapshot has
  // there. 1, 0 or -errno.
  int hidesSubvolume(uint64_t dir, std::string_view name, uint64_t id) const;

 private:
  const TreeRoot &root_;
  uint64_t snapshot_id_;
};

}  // namespace kest
