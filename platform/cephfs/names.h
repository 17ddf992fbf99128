// Where inodes stand in a tree.
#pragma once

#include <cstdint>
#include <string>

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// Every path of an inode; see Tree::findNames. A directory of the active tree is found from below,
// anything else by a walk over the whole tree. 1, 0 or -errno.
int findNamesOf(const CephRoot &root, uint64_t ino, InodeNames *names);

// The inode of a snapshot, looked up by names from its root, so that everything can be asked about it:
// by the place that an earlier listing showed, or by a walk over the snapshot. 0; -ENOENT there is
// none; -errno.
int findInSnapshot(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st);

// An inode of a tree by its number, as Tree::openInode. See CephClient::byNumber for what it is good
// for.
int openByNumber(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st);

// When a snapshot was taken, in seconds since 1970; `snapshot` is its root. 0: nobody knows.
int64_t timeOfSnapshot(const InodeRef &snapshot);

// The path of a directory of the active file system below its root; "" the root itself. 0 or -errno.
int pathOfDirectory(const std::shared_ptr<CephClient> &client, uint64_t ino, std::string *path);

// Whether the active directory `ino` lies in the fileset, or is its root. 1, 0 or -errno.
int liesInFileset(const CephRoot &root, uint64_t ino);

}  // namespace kest
