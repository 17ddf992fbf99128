#include "btrfs/relatives.h"

#include <dirent.h>
#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "btrfs/tree_items.h"

namespace kest {

namespace {

struct Comparison {
  Uuid fsid;
  uint64_t fileset_id, snapshot_id, line;
};

// A cache for the process. Its contents stay valid: subvolume ids are never reused, and UUIDs never
// change.
std::mutex mutex;
std::vector<Comparison> comparisons;                           // most recent last
std::map<std::tuple<Uuid, uint64_t, uint64_t>, bool> related;  // by file system, fileset, subvolume
std::map<std::pair<Uuid, uint64_t>, bool> keepers;             // fileset: does .snapshots hold some?

constexpr std::string_view kSnapshotFolder = ".snapshots";

int isRelated(const TreeRoot &root, uint64_t id) {
  auto key = std::make_tuple(root.fsid, root.fileset_id, id);
  {
    std::lock_guard lock(mutex);
    auto known = related.find(key);
    if (known != related.end()) return known->second;
  }
  SubvolumeTable table;
  int rc = table.load(root.fd.get());
  if (rc < 0) return rc;
  // Find all relatives at once: a fileset that contains one of its snapshots often contains more.
  std::lock_guard lock(mutex);
  for (const Subvolume &one : table.all()) {
    rc = table.related(root.fileset_id, one.id, nullptr);
    if (rc < 0) return rc;
    related[std::make_tuple(root.fsid, root.fileset_id, one.id)] = rc > 0;
  }
  return related[key];
}

// Whether directory `dir` of the tree is `above` or lies below it: 1, 0 or -errno.
int liesBelow(TreeReader &tree, uint64_t dir, uint64_t above) {
  while (dir != above && dir != kFirstInode) {
    std::vector<NameRef> names;
    const int rc = readNames(tree, dir, &names);
    if (rc <= 0) return rc;
    if (names.empty()) return 0;
    dir = names.front().parent;
  }
  return dir == above;
}

// Whether the fileset's .snapshots folder is a subvolume, or contains a snapshot of the fileset: 1, 0
// or -errno.
int findKeptSnapshot(const TreeRoot &root) {
  const int fd = root.fd.get();
  TreeReader tree(fd, root.fileset_id);
  DirEntryItem folder;
  int rc = findEntry(tree, kFirstInode, kSnapshotFolder, &folder);
  if (rc <= 0 || folder.junction) return rc;
  std::vector<Subvolume> nested;
  rc = listNested(fd, root.fileset_id, 0, &nested);
  if (rc < 0) return rc;
  for (const Subvolume &one : nested) {
    rc = isRelated(root, one.id);
    if (rc > 0) rc = liesBelow(tree, one.dir, folder.target);
    if (rc != 0) return rc;
  }
  return 0;
}

// Like findKeptSnapshot, but asks only once: a restore of the fileset cannot change the answer.
int keepsSnapshots(const TreeRoot &root) {
  const auto key = std::make_pair(root.fsid, root.fileset_id);
  {
    std::lock_guard lock(mutex);
    const auto known = keepers.find(key);
    if (known != keepers.end()) return known->second;
  }
  const int rc = findKeptSnapshot(root);
  if (rc < 0) return rc;
  std::lock_guard lock(mutex);
  keepers[key] = rc > 0;
  return rc;
}

}  // namespace

void rememberSnapshot(const TreeRoot &root, uint64_t snapshot_id, uint64_t line) {
  std::lock_guard lock(mutex);
  std::erase_if(comparisons, [&](const Comparison &one) {
    return one.fsid == root.fsid && one.fileset_id == root.fileset_id && one.snapshot_id == snapshot_id;
  });
  comparisons.push_back({root.fsid, root.fileset_id, snapshot_id, line});
}

uint64_t currentSnapshot(const TreeRoot &root) {
  std::lock_guard lock(mutex);
  for (auto one = comparisons.rbegin(); one != comparisons.rend(); ++one)
    if (one->fsid == root.fsid && one->fileset_id == root.fileset_id) return one->snapshot_id;
  return 0;
}

int findLine(const TreeRoot &root, uint64_t snapshot_id, uint64_t *line) {
  {
    std::lock_guard lock(mutex);
    for (const Comparison &one : comparisons) {
      if (one.fsid == root.fsid && one.fileset_id == root.subvol_id && one.snapshot_id == snapshot_id) {
        *line = one.line;
        return 0;
      }
    }
  }
  SubvolumeTable table;
  int rc = table.load(root.fd.get());
  if (rc < 0) return rc;
  if (snapshot_id == root.subvol_id) return -EINVAL;
  rc = table.related(root.subvol_id, snapshot_id, line);
  return rc > 0 ? 0 : rc < 0 ? rc : -EINVAL;
}

int HiddenEntries::hidesName(uint64_t dir, std::string_view name, uint8_t type) const {
  if (dir != kFirstInode || type != DT_DIR) return 0;
  if (name == ".unlinked" || name == ".fset") return root_.fileset_id == kTopLevel;
  return name == kSnapshotFolder ? keepsSnapshots(root_) : 0;
}

int HiddenEntries::hidesSubvolume(uint64_t dir, std::string_view name, uint64_t id) const {
  if (int rc = hidesName(dir, name, DT_DIR); rc != 0) return rc;
  if (snapshot_id_ != 0) {
    uint64_t active_dir;
    std::string active_name;
    int rc = findRootRef(root_.fd.get(), root_.fileset_id, id, &active_dir, &active_name);
    if (rc < 0) return rc;
    if (rc > 0 && active_dir == dir && active_name == name) {
      TreeReader snapshot(root_.fd.get(), snapshot_id_), active(root_.fd.get(), root_.fileset_id);
      DirEntryItem stub;
      rc = findEntry(snapshot, dir, name, &stub);
      if (rc < 0) return rc;
      if (rc > 0 && stub.junction && stub.target == id) {
        // The directory's number can belong to another directory in the snapshot, so compare their
        // identity.
        InodeItem then, now;
        int found_then = readInode(snapshot, dir, &then), found_now = readInode(active, dir, &now);
        if (found_then < 0 || found_now < 0) return std::min(found_then, found_now);
        if (found_then > 0 && found_now > 0 && sameIdentity(then, now)) return 1;
      }
    }
  }
  return isRelated(root_, id);
}

}  // namespace kest
