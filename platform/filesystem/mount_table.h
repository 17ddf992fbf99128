// The mounts of this mount namespace.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kest {

struct Mount {
  int id = 0, parent_id = 0;            // parent_id: the mount on which this one is mounted
  std::string type;                     // type of the file system
  unsigned major_no = 0, minor_no = 0;  // device number of the superblock
  std::string root;                     // path below the top of its file system, without leading slash
  std::string point;                    // mount point
  std::string source;                   // what is mounted, as the file system writes it
  std::string super_options;            // options of the file system, not of this mount
};

// Parses a line of /proc/self/mountinfo. Returns false if it is malformed.
bool parseMount(std::string_view line, Mount *mount);
// Reads all mounts of this namespace. 0 or -errno.
int readMounts(std::vector<Mount> *mounts);

}  // namespace kest
