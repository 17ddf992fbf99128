// What is mounted in this mount namespace.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kest {

struct Mount {
  int id = 0, parent_id = 0;            // parent: the mount on which this one is mounted
  std::string type;                     // of the file system
  unsigned major_no = 0, minor_no = 0;  // of the superblock
  std::string root;                     // path below the top of its file system, no leading slash
  std::string point;                    // mount point
  std::string source;                   // what is mounted, in the words of the file system
  std::string super_options;            // of the file system
};

// A line of /proc/self/mountinfo.
bool parseMount(std::string_view line, Mount *mount);
// Every mount of this namespace. 0 or -errno.
int readMounts(std::vector<Mount> *mounts);

}  // namespace kest
