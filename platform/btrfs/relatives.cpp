#include "btrfs/relatives.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "btrfs/tree_items.h"

namespace kest {

namespace {

struct Comparison {
  Uuid fsid;
  uint64_t fileset_id, snapshot_id, line;
};

// Subvolume ids are never used again and UUIDs never change, so what is remembered stays true.
std::mutex mutex;
std::vector<Comparison> comparisons;                           // the latest last
std::map<std::tuple<Uuid, uint64_t, uint64_t>, bool> related;  // file system, fileset, other subvolume

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
  // All at once: a fileset that holds one of its snapshots often holds more.
  std::lock_guard lock(mutex);
  for (const Subvolume &one : table.all())
    related[std::make_tuple(root.fsid, root.fileset_id, one.id)] =
        table.related(root.fileset_id, one.id, nullptr);
  return related[key];
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
  if (snapshot_id == root.subvol_id || !table.related(root.subvol_id, snapshot_id, line))
    return -EINVAL;
  return 0;
}

bool HiddenEntries::hidesName(uint64_t dir, std::string_view name) const {
  if (dir != kFirstInode) return false;
  return name == ".snapshots" || (root_.fileset_id == kTopLevel && (name == ".unlinked" || name == ".fset"));
}

int HiddenEntries::hidesSubvolume(uint64_t dir, std::string_view name, uint64_t id) const {
  if (hidesName(dir, name)) return 1;
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
        // The directory's number alone may mean another directory there.
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
