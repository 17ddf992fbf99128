// What the objects of a tree share.
#pragma once

#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "cephfs/client.h"

namespace kest {

struct CephRoot {
  std::shared_ptr<CephClient> client;
  InodeRef inode;              // the root directory
  uint64_t ino = 0;            // of it
  uint64_t snapid = kActive;   // or the snapshot's number
  std::string path;            // of the root directory through a mount, without a slash at its end
  UniqueFd fd;                 // the same, O_PATH: for those calls that give out descriptors
  dev_t device = 0;            // of the mount
  std::string default_layout;  // of the file system's root: a file that has it needs no word about it

  bool isSnapshot() const { return snapid != kActive; }
};

}  // namespace kest
