// What fset needs of a file system that has snapshots: the contract between the subcommands and each
// kind of file system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// Has no state: one object serves all filesets of a kind of file system. A routine takes only filesets
// whose `store` it is.
class SnapshotStore {
 public:
  virtual ~SnapshotStore() = default;

  // Returns all snapshots of the fileset, newest first. ktlssnapshot decides which ones count. Throws
  // Trouble.
  virtual std::vector<Snapshot> list(const Fileset &fileset) const = 0;

  // Returns the filesets that --fileset can name, by their paths below the top of the file system, as
  // far as they are found without walking through directories. Throws Trouble.
  virtual std::vector<std::string> filesets(const Fileset &fileset) const = 0;

  // Returns true if `path`, one of this machine, leads to the root directory of the snapshot.
  virtual bool leadsTo(const std::string &path, const Fileset &fileset, const Snapshot &one) const = 0;

  // Takes a snapshot of the present state, with everything that has been written on this machine. Of
  // the result only `path` and `word` are set. `now` is the time for its name, in seconds since 1970.
  // Throws Trouble if that fails.
  virtual Snapshot takeBackup(const Fileset &fileset, Backup kind, int64_t now) const = 0;
};

}  // namespace front
