// The relations between a fileset and the other subvolumes of its file system: since when the fileset
// and a snapshot differ, and which nested subvolumes and folders a restore leaves alone.
#pragma once

#include <cstdint>
#include <string_view>

#include "btrfs/tree_root.h"

namespace kest {

// Remembers for the whole process with which snapshot a fileset is compared.
void rememberSnapshot(const TreeRoot &fileset_or_snapshot, uint64_t snapshot_id, uint64_t line);

// Returns the snapshot that was remembered last, 0 without one.
uint64_t currentSnapshot(const TreeRoot &root);

// Finds the last transaction that the subvolume has in common with `snapshot_id`. 0; -EINVAL: they are
// not related; or -errno.
int findLine(const TreeRoot &root, uint64_t snapshot_id, uint64_t *line);

// Decides which entries of a fileset and of one of its snapshots a restore leaves alone: snapshots of
// the fileset, the folder .snapshots at its top while it contains some, the folders .unlinked and .fset
// at the top of the file system, and nested subvolumes that are where the snapshot has them.
class HiddenEntries {
 public:
  // `snapshot_id` 0: no comparison. `root` must outlive this object.
  HiddenEntries(const TreeRoot &root, uint64_t snapshot_id) : root_(root), snapshot_id_(snapshot_id) {}

  // For a file or directory of this name and type (DT_*) in directory `dir`: 1, 0 or -errno.
  int hidesName(uint64_t dir, std::string_view name, uint8_t type) const;
  // For the nested subvolume `id` that is linked as `name` in directory `dir`, or whose stub the
  // snapshot has there: 1, 0 or -errno.
  int hidesSubvolume(uint64_t dir, std::string_view name, uint64_t id) const;

 private:
  const TreeRoot &root_;
  uint64_t snapshot_id_;
};

}  // namespace kest
