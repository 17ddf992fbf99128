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
  std::string path;            // root directory through a mount, without trailing slash
  UniqueFd fd;                 // the same directory, O_PATH, for calls that return descriptors
  dev_t device = 0;            // st_dev of the mount
  std::string default_layout;  // layout of files for which none was set

  bool isSnapshot() const { return snapid != kActive; }
};

}  // namespace kest
