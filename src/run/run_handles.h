// The file-system handles of a process: opened once, used by every module.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "kest.h"

struct RunHandles {
  kest_fssnap_handle_t *activeFsP = nullptr;  // the fileset as it is
  kest_fssnap_handle_t *oldFsP = nullptr;     // the snapshot
  kest_iscan_t *iscanP = nullptr;             // difference of the active fileset against the snapshot
  kest_iscan_t *iscanFromP = nullptr;         // every inode of the snapshot
  std::string rootPath;                       // root directory of the active fileset, no trailing slash
  std::string snapRootPath;                   // root directory of the snapshot
  uint64_t rootIno = 0;                       // inode number of both root directories
};

extern RunHandles handles;

// An open inode that closes itself, keeping errno.
struct InodeCloser {
  void operator()(kest_ifile_t *file) const;
};
using Inode = std::unique_ptr<kest_ifile_t, InodeCloser>;

// An inode scan that closes itself.
struct ScanCloser {
  void operator()(kest_iscan_t *one) const { kest_close_inodescan(one); }
};
using InodeScan = std::unique_ptr<kest_iscan_t, ScanCloser>;

// Opens inode `ino` of a tree (flags 0 read, 1 write). rc of a failure is the errno, ENOENT where the
// tree holds no such inode.
Result openInode(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags = 0);

// Opens inode `ino` of the snapshot. `path`: of the active fileset, where it belongs, if it is known; the snapshot
// is likely to have it there. rc of a failure is the errno.
Result openSnapshotInode(uint64_t ino, const std::string &path, Inode *file);

// The same where a missing inode is no failure: `file` is empty then.
Result openIfThere(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags = 0);

inline bool isRegular(uint32_t mode) {
  return S_ISREG(mode);
}
inline bool isDirectory(uint32_t mode) {
  return S_ISDIR(mode);
}
