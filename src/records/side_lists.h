// Records that the master or any worker appends one at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "records/aggregate.h"
#include "scan/clone_state.h"

// dir.new: a directory whose attributes the last phase restores. `path` lies in the active fileset or
// in a temporary location; `ino` is the directory's inode number in the snapshot. Master and workers.
Result listNewDir(const std::string &path, uint64_t ino);

// regPendingMvList: the destination of the object in the temporary location of `ino` was taken.
// Workers.
Result listPendingMove(uint64_t ino);

// Appends what workers on other nodes have written to their files of a list (nodeFileName) to the list
// itself, and removes those files. If the run has lost nodes, drops what follows the last whole record
// of a file. Call it when no worker runs. rc of a failure is the errno; EINVAL: a list is damaged.
// Master only.
Result gatherNodeLists(const std::string &name);

// Writes what this process has appended to the lists of its node to the disk. The restore survives the
// loss of a node, but not that of these records if a checkpoint line says that the work is done: call
// it before such a line is written. Does nothing on the master's node, whose loss ends the run.
Result syncSideLists();

// link.ino: an inode with several hard links, whose names phase 8 corrects. Each inode is listed once,
// under the first name that the walk meets. Master only.
Result listLink(const std::string &path, uint64_t ino);

inline constexpr int kDeepestRestored = 1000, kDeepestDeleted = 1001;  // depths that have clone lists

// Appends a record of a clone or clone parent to the list of its depth: op 7 to delete it (`del`), else
// op 10 to make it. The record's inode is the parent's. `path` is where the object will be when the
// list runs; a worker resolves that of an op 10 record then, because objects still move. `attr` are the
// attributes of the active file (`del`) or of the snapshot's. EINVAL, after a message, for a clone too
// deep to be made. Master; workers for deletions.
Result listClone(const std::string &path, bool del, const CloneAttr &attr);

// Returns true at the first call for an inode in this process.
bool firstCloneListing(uint64_t ino);
