// Comparing one inode of the active tree with the same inode of a snapshot.
#pragma once

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// Whether the listing alone shows that nobody has changed the inode since the snapshot.
bool sameListing(const CephStat &now, const CephStat &then);

// 1 when everything that can be restored, the names apart, is equal; 0; -errno. Data are read only
// where the objects differ and everything else is equal. The snapshot has the inode in `dir_then` as
// `name`; "" is its root.
int sameProperties(const CephRoot &active, const CephRoot &snapshot, uint64_t ino, const CephStat &now,
                   const CephStat &then, const InodeRef &dir_then, const std::string &name);

// The same for an inode of the fileset and another one of the snapshot, whose listings agree: extended
// attributes, layout, holes, data, the target of a link. 1, 0 or -errno.
int sameContents(const CephRoot &active, const CephRoot &snapshot, const InodeRef &here,
                 const CephStat &now, const InodeRef &there, const CephStat &then);

// See kest_ichange.
int describeChange(const CephRoot &active, const CephRoot &snapshot, uint64_t ino,
                   kest_change_t *change);

}  // namespace kest
