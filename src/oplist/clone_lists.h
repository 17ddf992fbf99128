// The lists of clones by depth: to be deleted, and to be made again. Master, and workers for deletions.
#pragma once

#include <cstdint>
#include <string>

#include "scan/clone_state.h"

inline constexpr int kDeepestRestored = 1000, kDeepestDeleted = 1001;  // depths that have lists

// Appends the op 7 record (`del`) or op 10 record of a clone or clone parent to the list of its depth;
// the inode of the record is the parent's. `path`: where it will be found when the list is run; of an
// op 10 record it is resolved then, when everything has its place. `attr`: of the active file (`del`)
// or of the snapshot's. 0, or an errno after a trace line; EINVAL, after a message, for a clone too deep to
// be made again.
int listClone(const std::string &path, bool del, const CloneAttr &attr);

// True the first time that it is asked for an inode in this process.
bool firstCloneListing(uint64_t ino);
void resetCloneIndex();
