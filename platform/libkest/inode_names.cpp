// The paths of an inode; kest.h has the contract.
#include "btrfs/inode_names.h"

#include <algorithm>
#include <cerrno>

#include "kest.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"

using namespace kest;

extern "C" int kest_inode_names(kest_fssnap_handle_t *handle, uint64_t ino,
                                int (*each)(void *arg, const char *path), void *arg) {
  bool stopped = false;
  int rc = cCall([&] {
    if (handle == nullptr || each == nullptr) return -EINVAL;
    InodeNames names;
    int found =
        findInodeNames(handle->root.get(), handle->subvol_id, ino, !handle->isSnapshot(), &names);
    if (found < 0) return found;
    if (names.paths.empty()) return -ENOENT;
    stopped = std::any_of(names.paths.begin(), names.paths.end(),
                          [&](const std::string &path) { return each(arg, path.c_str()) != 0; });
    return 0;
  });
  return stopped ? -2 : rc;
}
