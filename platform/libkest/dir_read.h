// Listings of open directories.
#pragma once

#include "btrfs/tree_items.h"
#include "libkest/kinship.h"
#include "libkest/open_inode.h"

namespace kest {

// The whole live directory, hidden entries left out, `dots` or not; generations of directories only:
// nothing else is looked up. 0 or -errno.
int listDirectory(OpenInode *file, const HiddenEntries &hidden, bool dots, EntryList *entries);

// A record for an entry that was read from a tree.
kest_direntx64_t toRecord(const DirEntryItem &entry);

}  // namespace kest
