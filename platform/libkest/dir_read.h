// Listings of open directories.
#pragma once

#include <vector>

#include "btrfs/tree_items.h"
#include "libkest/kinship.h"
#include "libkest/open_inode.h"

namespace kest {

// The whole live directory, hidden entries left out; generations of directories only: nothing else is
// looked up. 0 or -errno.
int listDirectory(OpenInode *file, const HiddenEntries &hidden, std::vector<kest_direntx64_t> *entries);

// A record for an entry that was read from a tree.
kest_direntx64_t toRecord(const DirEntryItem &entry);

}  // namespace kest
