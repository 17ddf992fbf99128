// Records that are appended one at a time, by the master or by any worker.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "records/aggregate.h"
#include "scan/clone_state.h"

// dir.new: a directory whose attributes are restored at the very end. `path` in the active fileset or a
// temporary location, `ino` the directory's inode number in the snapshot. Master and workers.
Result listNewDir(const std::string &path, uint64_t ino);

// regPendingMvList: the object that waits in the temporary location of `ino` found its place taken.
// Workers.
Result listPendingMove(uint64_t ino);

// link.ino: a hard-linked inode whose names are put right in the last phase; once an inode, under the
// first name met. Master only.
Result listLink(const std::string &path, uint64_t ino);

inline constexpr int kDeepestRestored = 1000, kDeepestDeleted = 1001;  // depths that have clone lists

// Appends the op 7 record (`del`) or op 10 record of a clone or clone parent to the list of its depth;
// the inode of the record is the parent's. `path`: where it will be found when the list is run; of an
// op 10 record it is resolved then, when everything has its place. `attr`: of the active file (`del`)
// or of the snapshot's. EINVAL, after a message, for a clone too deep to be made again. Master, and
// workers for deletions.
Result listClone(const std::string &path, bool del, const CloneAttr &attr);

// True the first time that it is asked for an inode in this process.
bool firstCloneListing(uint64_t ino);
void resetCloneIndex();
