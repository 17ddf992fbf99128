// Keeps a file capability over a step in which the file system drops it.
#pragma once

#include <optional>
#include <string>

#include "filesystem/file_system.h"

namespace kest {

class KeptCapability {
 public:
  // Reads the capability once. Call it before the first such step. 0 or -errno.
  int save(Inode &inode);
  // Notes that another capability was set, or (NULL) removed.
  void replace(const std::string *capability);
  // Sets it again after a step that certainly drops it. 0 or -errno.
  int putBack(Inode &inode) const;
  // Sets it again after a step that may drop it. 0 or -errno.
  int putBackIfLost(Inode &inode) const;

 private:
  bool known_ = false;
  std::optional<std::string> value_;
};

}  // namespace kest
