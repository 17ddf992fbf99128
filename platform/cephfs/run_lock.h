// The lock of a fileset: one restore at a time, whatever node it runs on.
#pragma once

#include <cstdint>
#include <vector>

#include "cephfs/client.h"
#include "cephfs/tree_root.h"

namespace kest {

// A lock on the directory itself would be this node's alone where it is mounted by FUSE. So it is a
// lock on this file in it, which ends with the last process that has it open, or with the client of a
// node that is lost. No listing or comparison shows the file.
inline constexpr char kLockFile[] = ".fsetrestore.lock";

// Takes it out of the entries of the directory `dir`, where that is the root of the tree.
void leaveOutLockFile(const CephRoot &root, uint64_t dir, std::vector<CephEntry> *entries);

// See Tree::lock and Tree::removeLock. Neither changes the times of the root directory, but for its
// change time.
int lockFileset(const CephRoot &root);
int removeLockFile(const CephRoot &root);

}  // namespace kest
