// The lock of a fileset: one restore at a time, whatever node it runs on.
#pragma once

#include <cstdint>
#include <vector>

#include "cephfs/client.h"
#include "cephfs/tree_root.h"

namespace kest {

// On a FUSE mount, a lock on the directory itself would hold on this node only. So the lock is on this
// file in the directory. It ends when the last process that has the file open ends, or when the servers
// evict the client of a lost node. No listing or comparison shows the file.
inline constexpr char kLockFile[] = ".fsetrestore.lock";

// Removes the lock file from the entries of the directory `dir` if that is the root of the tree.
void leaveOutLockFile(const CephRoot &root, uint64_t dir, std::vector<CephEntry> *entries);

// See Tree::lock and Tree::removeLock. Neither changes the times of the root directory, but for its
// change time.
int lockFileset(const CephRoot &root);
int removeLockFile(const CephRoot &root);

}  // namespace kest
