// Comparing one inode of the active tree with the same inode of a snapshot.
#pragma once

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// Returns true if the listings alone show that the inode has not changed since the snapshot.
bool sameListing(const CephStat &now, const CephStat &then);

// Whether everything that can be restored, except the names, is equal: 1, 0 or -errno. Reads data only
// if the objects differ and everything else is equal. The snapshot has the inode in `dir_then` as
// `name`; "" means the root of the snapshot.
int sameProperties(const CephRoot &active, const CephRoot &snapshot, uint64_t ino, const CephStat &now,
                   const CephStat &then, const InodeRef &dir_then, const std::string &name);

// The same for two different inodes of fileset and snapshot whose listings agree. Compares extended
// attributes, layout, holes, data, and the target of a symbolic link. 1, 0 or -errno.
int sameContents(const CephRoot &active, const CephRoot &snapshot, const InodeRef &here,
                 const CephStat &now, const InodeRef &there, const CephStat &then);

// See kest_ichange.
int describeChange(const CephRoot &active, const CephRoot &snapshot, uint64_t ino,
                   kest_change_t *change);

}  // namespace kest
