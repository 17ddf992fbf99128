// The file-system handles of a process. They are opened once and used by every module.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "kest.h"

struct RunHandles {
  kest_fssnap_handle_t *activeFsP = nullptr;  // the active fileset
  kest_fssnap_handle_t *oldFsP = nullptr;     // the snapshot
  kest_iscan_t *iscanP = nullptr;             // the difference between active fileset and snapshot
  kest_iscan_t *iscanFromP = nullptr;         // every inode of the snapshot
  std::string rootPath;      // root directory of the active fileset, without trailing slash
  std::string snapRootPath;  // root directory of the snapshot
  uint64_t rootIno = 0;      // inode number of both root directories (256 on btrfs)
};

extern RunHandles handles;

// An open inode that closes itself and keeps errno.
struct InodeCloser {
  void operator()(kest_ifile_t *file) const;
};
using Inode = std::unique_ptr<kest_ifile_t, InodeCloser>;

// An inode scan that closes itself.
struct ScanCloser {
  void operator()(kest_iscan_t *one) const { kest_close_inodescan(one); }
};
using InodeScan = std::unique_ptr<kest_iscan_t, ScanCloser>;

// Opens inode `ino` of a tree; `flags` is 0 for reading, 1 for writing. rc of a failure is the errno;
// ENOENT means that the tree holds no such inode.
Result openInode(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags = 0);

// Opens inode `ino` of the snapshot. `path` is where the inode belongs in the active fileset, if that
// is known: the snapshot is likely to have it at the same place. rc of a failure is the errno.
Result openSnapshotInode(uint64_t ino, const std::string &path, Inode *file);

// Like openInode, but a missing inode is no failure; `file` is then empty.
Result openIfThere(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags = 0);

inline bool isRegular(uint32_t mode) {
  return S_ISREG(mode);
}
inline bool isDirectory(uint32_t mode) {
  return S_ISDIR(mode);
}
