#include "verify/inode_path.h"

#include <algorithm>

int allPaths(kest_fssnap_handle_t *tree, uint64_t ino, std::vector<std::string> *paths) {
  const auto take = [](void *to, const char *path) {
    static_cast<std::vector<std::string> *>(to)->emplace_back(path);
    return 0;
  };
  paths->clear();
  if (kest_inode_names(tree, ino, take, paths) != 0) return -1;
  std::sort(paths->begin(), paths->end());
  return 0;
}

int firstPath(kest_fssnap_handle_t *tree, uint64_t ino, std::string *path) {
  std::vector<std::string> paths;
  if (allPaths(tree, ino, &paths) != 0) return -1;
  *path = paths.front();
  return 0;
}
