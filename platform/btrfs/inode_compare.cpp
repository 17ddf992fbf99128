#include "btrfs/inode_compare.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "btrfs/extent_diff.h"
#include "btrfs/inode_flags.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

// Flags that the kernel keeps for itself and that no restore can set.
constexpr uint64_t kHasPreallocated = 1u << 4, kRootItemInit = 1u << 31;
constexpr uint64_t kPrivateFlags = kHasPreallocated | kRootItemInit;

// Returns true if both have the same names, in whichever directories.
bool sameNamesElsewhere(const std::vector<NameRef> &now, const std::vector<NameRef> &then) {
  if (now.size() == 1 && then.size() == 1) return now.front().name == then.front().name;
  const auto sorted = [](const std::vector<NameRef> &names) {
    std::vector<std::string_view> list;
    for (const NameRef &one : names) list.push_back(one.name);
    std::sort(list.begin(), list.end());
    return list;
  };
  return sorted(now) == sorted(then);
}

// Whether both trees know directory `dir` by the same path from the root: 1, 0 or -errno.
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

// Returns the names of the file through which `path` can have reached it.
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

namespace {

// Symbolic links and special files inherit flags from their directory, and no call can change those.
bool sameFlags(const InodeItem &now, const InodeItem &then) {
  return (!S_ISREG(now.mode) && !S_ISDIR(now.mode)) || ((now.flags ^ then.flags) & ~kPrivateFlags) == 0;
}

}  // namespace

bool sameItem(const InodeItem &now, const InodeItem &then) {
  return now.mode == then.mode && now.uid == then.uid && now.gid == then.gid &&
         now.nlink == then.nlink && now.mtime == then.mtime && now.rdev == then.rdev &&
         sameFlags(now, then) && (S_ISDIR(now.mode) || now.size == then.size);
}

int readNamesAndXattrs(const InodeOfTree &inode, InodeRecord *record) {
  int rc = readNames(inode.tree, inode.ino, &record->names);
  if (rc > 0) rc = readXattrs(inode.tree, inode.ino, &record->xattrs);
  if (rc < 0) return rc;
  record->clone_xattrs.clear();
  if (!S_ISREG(record->item.mode)) return 0;
  const auto ours = [](const XattrItem &one) { return isCloneAttribute(one.name); };
  std::copy_if(record->xattrs.begin(), record->xattrs.end(), std::back_inserter(record->clone_xattrs),
               ours);
  if (!record->clone_xattrs.empty()) std::erase_if(record->xattrs, ours);
  return 0;
}

int compareInodes(const InodeOfTree &active, InodeRecord *now, const InodeOfTree &snapshot,
                  InodeRecord *then, unsigned *unequal) {
  *unequal = kOther;
  // Cheap comparisons come first. Data is compared only if everything else is equal.
  if (!sameItem(now->item, then->item)) return 0;
  int rc = readNamesAndXattrs(active, now);
  if (rc == 0) rc = readNamesAndXattrs(snapshot, then);
  if (rc < 0 || now->xattrs != then->xattrs) return rc;
  unsigned found = 0;
  if (now->names != then->names) {
    if (!sameNamesElsewhere(now->names, then->names)) return 0;
    found |= kParents;
  }
  if (now->clone_xattrs != then->clone_xattrs) found |= kCloneRelation;
  const mode_t mode = now->item.mode;
  if (S_ISREG(mode) || S_ISLNK(mode)) {
    // A clone is defined by the blocks that it shares. A symbolic link's target lies in its inode item.
    const bool clone = !now->clone_xattrs.empty() || !then->clone_xattrs.empty();
    rc = sameData(active, snapshot, now->item.size, clone || S_ISLNK(mode));
    if (rc <= 0) return rc;
  }
  *unequal = found;
  return 0;
}

int describeChange(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then, kest_change_t *change) {
  *change = {};
  change->ch_size = now.size;
  change->ch_snap_size = then.size;
  change->ch_regular = S_ISREG(now.mode);
  if (!change->ch_regular) return 0;
  change->ch_shareable = sharesInPlace(then.flags, now.flags);
  change->ch_other_storage = !change->ch_shareable;
  std::vector<FileRange> ranges;
  constexpr size_t kEnough = 2;  // enough to know that there are more
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
  // Every subvolume has its own device number.
  if (status.st_dev != root.st_dev) return 1;
  // Trees show committed data only.
  if (syncfs(active_root.fd.get()) < 0) return -errno;
  TreeReader active(active_root.fd.get(), active_root.subvol_id);
  TreeReader snapshot(active_root.fd.get(), snapshot_root.subvol_id);
  InodeRecord now, then;
  int rc = readInode(active, status.st_ino, &now.item);
  if (rc > 0) rc = readInode(snapshot, status.st_ino, &then.item);
  if (rc > 0) rc = sameIdentity(now.item, then.item);
  if (rc > 0 && (now.item.ctime != then.item.ctime || now.item.sequence != then.item.sequence)) {
    unsigned unequal;
    rc = compareInodes({active, status.st_ino}, &now, {snapshot, status.st_ino}, &then, &unequal);
    if (rc == 0) rc = unequal == 0;
  }
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
