// A step that the immutable or append-only flag of a file would forbid.
#pragma once

#include "filesystem/file_system.h"

namespace kest {

// Both flags of one object are off from lift() to setAgain() or the end of life.
class LiftedFlags {
 public:
  // The inode is open from before the step, so that it is surely the same object, and must live as
  // long.
  explicit LiftedFlags(Inode &inode) : inode_(inode) {}
  LiftedFlags(const LiftedFlags &) = delete;
  LiftedFlags &operator=(const LiftedFlags &) = delete;
  ~LiftedFlags();

  // `afterwards`: the flags that setAgain() sets. 0 or -errno.
  int lift(Protection afterwards);
  // Does nothing to an object that has lost its last name. 0 or -errno.
  int setAgain();

 private:
  Inode &inode_;
  bool lifted_ = false;
  Protection afterwards_;
};

}  // namespace kest
