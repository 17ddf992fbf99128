// Finds inodes of a tree, and their paths.
#pragma once

#include <cstdint>
#include <string>

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// Finds every path of an inode; see Tree::findNames. For a directory of the active tree climbs to the
// root; for anything else walks over the whole tree. 1, 0 or -errno.
int findNamesOf(const CephRoot &root, uint64_t ino, InodeNames *names);

// Looks up an inode of a snapshot by names from its root, so that every request about it is possible.
// Uses the place that an earlier listing showed, or else a walk over the snapshot. 0; -ENOENT: there is
// no such inode; or another -errno.
int findInSnapshot(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st);

// Finds an inode of a tree by its number, as Tree::openInode. See CephClient::byNumber for the requests
// that are possible with it.
int openByNumber(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st);

// Returns when a snapshot was taken, in seconds since 1970, or 0 if unknown. `snapshot` is its root.
int64_t timeOfSnapshot(const InodeRef &snapshot);

// The path of a directory of the active file system below its root; "" the root itself. 0 or -errno.
int pathOfDirectory(const std::shared_ptr<CephClient> &client, uint64_t ino, std::string *path);

// Whether the active directory `ino` lies in the fileset, or is its root. 1, 0 or -errno.
int liesInFileset(const CephRoot &root, uint64_t ino);

}  // namespace kest
