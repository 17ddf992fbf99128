// Clears the immutable and append-only flags for one step that they would forbid.
#pragma once

#include "filesystem/file_system.h"

namespace kest {

// Both flags of the object are clear from lift() to setAgain() or the destructor.
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
