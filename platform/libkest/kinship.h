// What a fileset has to do with the other subvolumes of its file system: which are its snapshots, since
// when they differ, and which of those that stand inside it are nobody's business.
#pragma once

#include <cstdint>
#include <string_view>

#include "libkest/fileset_handle.h"

namespace kest {

// Remembers, for the whole process, the snapshot that a fileset is being compared with.
void rememberSnapshot(const kest_fssnap_handle &fileset_or_snapshot, uint64_t snapshot_id,
                      uint64_t line);

// That snapshot: the one named last. 0 when there was none.
uint64_t currentSnapshot(const kest_fssnap_handle &handle);

// The last transaction that the handle's fileset has in common with `snapshot_id`. 0; -EINVAL when the
// two are not related; -errno.
int findLine(const kest_fssnap_handle &handle, uint64_t snapshot_id, uint64_t *line);

// Decides which entries of the fileset and of one of its snapshots belong to nobody's restore:
// snapshots of the fileset, the folders that snapshot tools keep them in, and nested subvolumes that
// stand where they stood in the snapshot.
class HiddenEntries {
 public:
  // `snapshot_id` 0: there is nothing to compare with. `handle` must live as long.
  HiddenEntries(const kest_fssnap_handle &handle, uint64_t snapshot_id)
      : handle_(handle), snapshot_id_(snapshot_id) {}

  // A file or directory of this name in directory `dir`.
  bool hidesName(uint64_t dir, std::string_view name) const;
  // Nested subvolume `id`, linked (or, in the snapshot, its stub standing) as `name` in directory
  // `dir`. 1, 0 or -errno.
  int hidesSubvolume(uint64_t dir, std::string_view name, uint64_t id) const;

 private:
  const kest_fssnap_handle &handle_;
  uint64_t snapshot_id_;
};

}  // namespace kest
