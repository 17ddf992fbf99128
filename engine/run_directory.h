// The directory of a run, held open: its parent may be a place where users can exchange it for theirs.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

// rc of its failures is the errno.
class RunDirectory {
 public:
  // EPERM where others could write to it, or where KT_DIRECTORY in the environment, <device>:<inode>,
  // names another one.
  Result open(const std::string &path);

  const std::string &path() const { return path_; }

  // Opens `file`, by its name alone where it lies directly in the directory; links are not followed.
  // EPERM for a file to be read elsewhere that others could have written.
  Result openFile(const std::string &file, int flags, UniqueFd *fd, mode_t mode = 0600) const;
  void remove(const std::string &file) const;

 private:
  // The descriptor and name by which `file` is reached.
  int reach(const std::string &file, const char **name) const;

  std::string path_;
  UniqueFd fd_;
};
