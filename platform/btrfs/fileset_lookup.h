// From the names of filesets and snapshots to their subvolumes.
#pragma once

#include <string>
#include <vector>

#include "btrfs/subvolume.h"

namespace kest {

// The subvolume with this path below the top of the file system; slashes around it do not matter. NULL:
// there is none.
const Subvolume *findByPath(const SubvolumeTable &table, const std::string &path);

// Name a fileset, and a snapshot of it, as kest_get_fset_snaphandle_by_name takes them. `device` and
// `fileset_name` are for the error text. 0; -ENOENT, -EINVAL, -errno.
int findFileset(const SubvolumeTable &table, const std::string &name, const std::string &device,
                const Subvolume **fileset);
int findSnapshot(const SubvolumeTable &table, const std::string &name, const Subvolume &fileset,
                 const std::string &fileset_name, const Subvolume **snapshot);

struct NamedSnapshot {
  const Subvolume *subvolume = nullptr;
  // Last component of the path, or, where several have the same, the path below the top, which then
  // holds a slash, if only a leading one.
  std::string name;
};

// The relatives of the fileset that have a path, by id. 0 or -errno.
int listSnapshots(const SubvolumeTable &table, const Subvolume &fileset,
                  std::vector<NamedSnapshot> *snapshots);

}  // namespace kest
