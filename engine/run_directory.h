// The directory of a run, held open, because users who may write to its parent could replace it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

// rc of every failure is the errno.
class RunDirectory {
 public:
  // EPERM if other users may write to the directory, or if KT_DIRECTORY in the environment,
  // "<device>:<inode>", names another one.
  Result open(const std::string &path);

  const std::string &path() const { return path_; }
  // Returns its inode number, which is the same on every node.
  uint64_t inode() const { return inode_; }
  // Returns "<device>:<inode>", as this node sees it.
  const std::string &identity() const { return identity_; }

  // Opens `file` without following links. A file directly in the directory is opened by its name alone.
  // EPERM for a regular file elsewhere that another user owns or may write.
  Result openFile(const std::string &file, int flags, UniqueFd *fd, mode_t mode = 0600) const;
  void remove(const std::string &file) const;

 private:
  // Finds the descriptor and the name through which `file` is reached.
  int reach(const std::string &file, const char **name) const;

  std::string path_, identity_;
  uint64_t inode_ = 0;
  UniqueFd fd_;
};
