// kest_file_survives: whether a restore leaves a file alone.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "btrfs/file_handle.h"
#include "btrfs/subvolume.h"
#include "libkest/c_call.h"
#include "libkest/tree_diff.h"

namespace kest {

namespace {

// 1 when both trees know directory `dir` by the same path from the root. 0, -errno.
int sameWayUp(TreeReader &active, TreeReader &snapshot, uint64_t dir) {
  std::vector<NameRef> now, then;
  while (dir != kFirstInode) {
    InodeItem item_now, item_then;
    int rc = readInode(active, dir, &item_now);
    if (rc > 0) rc = readInode(snapshot, dir, &item_then);
    if (rc > 0) rc = sameIdentity(item_now, item_then);
    if (rc > 0) rc = readNames(active, dir, &now);
    if (rc > 0) rc = readNames(snapshot, dir, &then);
    if (rc <= 0) return rc;
    if (now.size() != 1 || now != then) return 0;
    dir = now.front().parent;
  }
  return 1;
}

// The names of the file by which `path` may have reached it.
std::vector<NameRef> namesOf(const char *path, const std::vector<NameRef> &names) {
  char resolved[PATH_MAX];
  struct stat folder;
  std::vector<NameRef> matching;
  if (realpath(path, resolved) == nullptr) return names;
  char *slash = strrchr(resolved, '/');
  std::string name(slash + 1);
  *slash = 0;
  if (stat(resolved[0] == 0 ? "/" : resolved, &folder) < 0) return names;
  for (const NameRef &one : names)
    if (one.name == name && one.parent == folder.st_ino) matching.push_back(one);
  return matching.empty() ? names : matching;
}

int survives(const kest_fssnap_handle &active_handle, const kest_fssnap_handle &snap_handle,
             const char *path) {
  UniqueFd fd(open(path, O_PATH | O_CLOEXEC));
  if (!fd) return -errno;
  struct stat status, root;
  if (fstat(fd.get(), &status) < 0 || fstat(active_handle.root.get(), &root) < 0) return -errno;
  // Every subvolume has a device number of its own.
  if (status.st_dev != root.st_dev) return 1;
  if (syncfs(active_handle.root.get()) < 0) return -errno;
  TreeReader active(active_handle.root.get(), active_handle.subvol_id);
  TreeReader snapshot(active_handle.root.get(), snap_handle.subvol_id);
  InodeItem now, then;
  int rc = readInode(active, status.st_ino, &now);
  if (rc > 0) rc = readInode(snapshot, status.st_ino, &then);
  if (rc > 0) rc = sameIdentity(now, then);
  if (rc > 0 && (now.ctime != then.ctime || now.sequence != then.sequence))
    rc = sameProperties(active, snapshot, status.st_ino, now, then);
  std::vector<NameRef> names;
  if (rc > 0) rc = readNames(active, status.st_ino, &names);
  if (rc <= 0) return rc;
  for (const NameRef &one : namesOf(path, names)) {
    rc = sameWayUp(active, snapshot, one.parent);
    if (rc <= 0) return rc;
  }
  return 1;
}

}  // namespace

}  // namespace kest

extern "C" int kest_file_survives(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                                  const char *path) {
  return kest::cCall([&] {
    if (active == nullptr || snap == nullptr || path == nullptr) return -EINVAL;
    return kest::survives(*active, *snap, path);
  });
}
