#include "verify/inode_path.h"

#include <algorithm>
#include <vector>

#include "worker/inode_paths.h"

int firstPath(kest_fssnap_handle_t *tree, uint64_t ino, std::string *path) {
  std::vector<std::string> paths;
  if (findInodePaths(tree, ino, "", &paths) != 0) return -1;
  *path = *std::min_element(paths.begin(), paths.end());
  return 0;
}
