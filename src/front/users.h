// Finds the processes that use a fileset.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace front {

struct User {
  pid_t pid = 0;
  std::string name;  // the process's own name, raw bytes
};

// Returns the processes, other than this one, that have a file or directory of the file system `device`
// (st_dev) open, have it as current or root directory, run a program from it or have mapped one of its
// files. `below`, unless empty, is
// the path of a directory: what lies outside it does not count. Skips processes that cannot be
// examined.
std::vector<User> findUsers(dev_t device, const std::string &below = "");

}  // namespace front
