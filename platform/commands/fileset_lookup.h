// From the device and fileset that the user names to the subvolume.
#pragma once

#include <string>
#include <vector>

#include "btrfs/mounts.h"
#include "btrfs/subvolume.h"

namespace kest {

struct Fileset {
  MountedFileSystem fs;
  SubvolumeTable table;
  Subvolume subvolume;
  std::string path;  // below the top of the file system, no leading slash; "" for the top level
};

// Finds `fileset` (its path below the top of the file system, slashes around it do not matter) on the
// file system of `device`. False: *problem says why.
bool findFileset(const std::string &device, const std::string &fileset, Fileset *found,
                 std::string *problem);

struct Snapshot {
  Subvolume subvolume;
  // Last component of the path, or, where several have the same, the path below the top, which then
  // holds a slash, if only in front.
  std::string name;
};

// The relatives of the fileset, by id. 0 or -errno.
int findSnapshots(const Fileset &fileset, std::vector<Snapshot> *snapshots);

struct SubvolumeState {
  int64_t created = 0;  // seconds since the epoch
  bool read_only = false;
};

// 0 or -errno.
int readState(const Fileset &fileset, uint64_t id, SubvolumeState *state);

}  // namespace kest
