// The directory of a run, held open: its parent may be a place where users can exchange it for theirs.
#pragma once

#include <string>

#include <sys/types.h>

#include "btrfs/unique_fd.h"

namespace kest {

class RunDirectory {
 public:
  // 0 or -errno; -EPERM where others could write to it, or where KT_DIRECTORY in the environment,
  // <device>:<inode>, names another one.
  int open(const std::string &path);

  const std::string &path() const { return path_; }

  // A descriptor of `file`, of its own name where it lies directly in the directory; links are not
  // followed. -errno; -EPERM for a file to be read elsewhere that others could have written.
  int openFile(const std::string &file, int flags, mode_t mode = 0600) const;
  void remove(const std::string &file) const;

 private:
  // The descriptor and name by which `file` is reached.
  int reach(const std::string &file, const char **name) const;

  std::string path_;
  UniqueFd fd_;
};

}  // namespace kest
