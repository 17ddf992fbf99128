#include "btrfs/inode_compare.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "btrfs/extent_diff.h"
#include "btrfs/inode_flags.h"

namespace kest {

namespace {

// Hints of the kernel to itself, which no restore can set.
constexpr uint64_t kHasPreallocated = 1u << 4, kRootItemInit = 1u << 31;
constexpr uint64_t kPrivateFlags = kHasPreallocated | kRootItemInit;

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

}  // namespace

int sameProperties(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then) {
  if (now.mode != then.mode || now.uid != then.uid || now.gid != then.gid || now.nlink != then.nlink ||
      now.mtime != then.mtime || now.rdev != then.rdev ||
      ((now.flags ^ then.flags) & ~kPrivateFlags) != 0)
    return 0;
  // The size of a directory is that of its names and includes hidden entries.
  if (!S_ISDIR(now.mode) && now.size != then.size) return 0;
  std::vector<NameRef> names_now, names_then;
  int rc = readNames(active, ino, &names_now);
  if (rc > 0) rc = readNames(snapshot, ino, &names_then);
  if (rc < 0 || names_now != names_then) return std::min(rc, 0);
  std::vector<XattrItem> xattrs_now, xattrs_then;
  rc = readXattrs(active, ino, &xattrs_now);
  if (rc > 0) rc = readXattrs(snapshot, ino, &xattrs_then);
  if (rc < 0 || xattrs_now != xattrs_then) return std::min(rc, 0);
  if (!S_ISREG(now.mode) && !S_ISLNK(now.mode)) return 1;
  std::vector<FileRange> ranges;
  rc = diffExtents(active, snapshot, ino, 0, now.size, 1, &ranges);
  return rc < 0 ? rc : ranges.empty();
}

int describeChange(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then, kest_change_t *change) {
  *change = {};
  change->ch_size = now.size;
  change->ch_snap_size = then.size;
  change->ch_regular = S_ISREG(now.mode);
  if (!change->ch_regular) return 0;
  change->ch_shareable = ((now.flags ^ then.flags) & kItemSharingKind) == 0;
  std::vector<FileRange> ranges;
  constexpr size_t kEnough = 2;  // to know that there are more
  int rc = diffExtents(active, snapshot, ino, 0, std::min(now.size, then.size), kEnough, &ranges);
  if (rc < 0 || ranges.empty()) return rc;
  change->ch_start = ranges.front().start;
  change->ch_length = ranges.front().length;
  change->ch_hole = ranges.front().hole;
  change->ch_more = ranges.size() == kEnough;
  return 0;
}

int fileSurvives(const TreeRoot &active_root, const TreeRoot &snapshot_root, const char *path) {
  UniqueFd fd(open(path, O_PATH | O_CLOEXEC));
  if (!fd) return -errno;
  struct stat status, root;
  if (fstat(fd.get(), &status) < 0 || fstat(active_root.fd.get(), &root) < 0) return -errno;
  // Every subvolume has a device number of its own.
  if (status.st_dev != root.st_dev) return 1;
  if (syncfs(active_root.fd.get()) < 0) return -errno;
  TreeReader active(active_root.fd.get(), active_root.subvol_id);
  TreeReader snapshot(active_root.fd.get(), snapshot_root.subvol_id);
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

}  // namespace kest
