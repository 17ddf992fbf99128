// Who uses a fileset.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace front {

struct User {
  pid_t pid = 0;
  std::string name;  // as the process calls itself, raw bytes
};

// The processes that have a file or directory of the file system `device` (st_dev) open, stand in it,
// run a program of it or have mapped one of its files; this process is none of them. Processes that
// cannot be looked at are passed over.
std::vector<User> findUsers(dev_t device);

}  // namespace front
