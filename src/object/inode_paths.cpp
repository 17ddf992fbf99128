#include "object/inode_paths.h"

#include <algorithm>

namespace {

struct Collector {
  const std::string &root;
  std::vector<std::string> *paths;
};

int collect(void *arg, const char *path) {
  const auto *to = static_cast<Collector *>(arg);
  std::string &whole = to->paths->emplace_back(to->root);
  if (*path == '\0') return 0;
  if (!whole.empty() && !whole.ends_with('/')) whole.append(1, '/');
  whole.append(path);
  return 0;
}

}  // namespace

Result findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                      std::vector<std::string> *paths) {
  paths->clear();
  Collector collector{root, paths};
  return called(kest_inode_names(handle, ino, collect, &collector));
}

Result firstPath(kest_fssnap_handle_t *handle, uint64_t ino, std::string *path) {
  std::vector<std::string> paths;
  if (Result r = findInodePaths(handle, ino, "", &paths); !r) return r;
  *path = *std::min_element(paths.begin(), paths.end());
  return {};
}
