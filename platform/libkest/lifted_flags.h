// A step that the immutable or append-only flag of a file is in the way of.
#pragma once

#include "btrfs/inode_flags.h"
#include "btrfs/unique_fd.h"

namespace kest {

// Both flags of one object are off from lift() to setAgain() or the end of life.
class LiftedFlags {
 public:
  LiftedFlags() = default;
  LiftedFlags(const LiftedFlags &) = delete;
  LiftedFlags &operator=(const LiftedFlags &) = delete;
  ~LiftedFlags();

  // `path_fd`: a file or directory, O_PATH will do. `afterwards`: the flags that setAgain() sets. 0 or
  // -errno.
  int lift(int path_fd, Protection afterwards);
  // Does nothing to an object that has lost its last name. 0 or -errno.
  int setAgain();

 private:
  UniqueFd fd_;  // held from before the step, so that it is surely the same object
  Protection afterwards_;
};

}  // namespace kest
