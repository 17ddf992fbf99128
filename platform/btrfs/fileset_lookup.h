// Finds the subvolumes that names of filesets and snapshots mean.
#pragma once

#include <string>
#include <vector>

#include "btrfs/subvolume.h"

namespace kest {

// Returns the subvolume with this path below the top of the file system, or NULL. Slashes around the
// path are ignored.
const Subvolume *findByPath(const SubvolumeTable &table, const std::string &path);

// Find a fileset, or a snapshot of one, by its name as in kest_get_fset_snaphandle_by_name. `device`
// and `fileset_name` are for the error text. 0; -ENOENT, -EINVAL or another -errno.
int findFileset(const SubvolumeTable &table, const std::string &name, const std::string &device,
                const Subvolume **fileset);
int findSnapshot(const SubvolumeTable &table, const std::string &name, const Subvolume &fileset,
                 const std::string &fileset_name, const Subvolume **snapshot);

struct NamedSnapshot {
  const Subvolume *subvolume = nullptr;
  // The last component of the path. If several snapshots share it, the path below the top, which then
  // contains a slash, if necessary a leading one.
  std::string name;
};

// Lists the relatives of the fileset that have a path, in the order of their ids. 0 or -errno.
int listSnapshots(const SubvolumeTable &table, const Subvolume &fileset,
                  std::vector<NamedSnapshot> *snapshots);

}  // namespace kest
