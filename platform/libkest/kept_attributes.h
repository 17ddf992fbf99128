// Attributes that an object loses for one step and gets again after it.
#pragma once

#include <optional>
#include <string>

#include "filesystem/file_system.h"

namespace kest {

// Keeps a file capability over a step in which the file system drops it.
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

// Clears the immutable and append-only flags for one step that they would forbid: both flags of the
// object are clear from lift() to setAgain() or the destructor.
class LiftedFlags {
 public:
  // The inode must have been opened before the step, so that it is certainly the same object, and must
  // outlive this one.
  explicit LiftedFlags(Inode &inode) : inode_(inode) {}
  LiftedFlags(const LiftedFlags &) = delete;
  LiftedFlags &operator=(const LiftedFlags &) = delete;
  ~LiftedFlags();

  // `afterwards` are the flags that setAgain() sets. 0 or -errno.
  int lift(Protection afterwards);
  // Does nothing if the object has lost its last name. 0 or -errno.
  int setAgain();

 private:
  Inode &inode_;
  bool lifted_ = false;
  Protection afterwards_;
};

}  // namespace kest
