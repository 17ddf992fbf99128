// Whether an object is the one that is meant, while users exchange theirs.
#pragma once

#include <sys/stat.h>
#include <cstdint>

#include "kest.h"

// True when the object of the active fileset may be made what inode `ino` of the snapshot is, whose
// attributes are `attr`: it is that inode, or a process of this run made it in its stead. The
// latter has no more names than that, is ours or already the owner's, and younger than the work
// directory; what somebody moves or links to its place is not.
bool mayBecome(const struct stat &st, uint64_t ino, const kest_iattr64_t &attr);

// The second half of it alone, for an inode that is gone: its number could only be that of a stranger.
// False also when `snap` cannot be looked at.
bool isMadeFor(const struct stat &st, const kest_ifile_t *snap);
