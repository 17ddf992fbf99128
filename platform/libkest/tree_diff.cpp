#include "libkest/tree_diff.h"

#include <dirent.h>
#include <linux/btrfs_tree.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include "btrfs/subvolume.h"
#include "libkest/entry_diff.h"
#include "libkest/extent_diff.h"

namespace kest {

namespace {

constexpr size_t kScanBytes = 256 * 1024;

// Hints of the kernel to itself, which no restore can set.
constexpr uint64_t kHasPreallocated = 1u << 4, kRootItemInit = 1u << 31;
constexpr uint64_t kPrivateFlags = kHasPreallocated | kRootItemInit;

constexpr int64_t kClockMargin = 2;  // seconds

}  // namespace

int sameProperties(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then) {
  if (now.mode != then.mode || now.uid != then.uid || now.gid != then.gid || now.nlink != then.nlink ||
      now.mtime != then.mtime || now.rdev != then.rdev ||
      ((now.flags ^ then.flags) & ~kPrivateFlags) != 0)
    return 0;
  // A directory's size is that of its names, those of hidden entries included.
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
  std::vector<ExtentRange> ranges;
  rc = diffExtents(active, snapshot, ino, 0, now.size, 1, &ranges);
  return rc < 0 ? rc : ranges.empty();
}

TreeDiff::TreeDiff(const kest_fssnap_handle &handle, uint64_t snapshot_id, uint64_t line)
    : handle_(handle),
      line_(line),
      hidden_(handle, snapshot_id),
      active_{TreeReader(handle.root.get(), handle.subvol_id),
              TreeReader(handle.root.get(), handle.subvol_id),
              TreeReader(handle.root.get(), handle.subvol_id),
              {}},
      snapshot_{TreeReader(handle.root.get(), snapshot_id),
                TreeReader(handle.root.get(), snapshot_id),
                TreeReader(handle.root.get(), snapshot_id),
                {}} {}

int TreeDiff::compute() {
  // Delayed updates and unwritten data are in no tree yet.
  if (syncfs(handle_.root.get()) < 0) return -errno;
  int rc = findLineTime();
  if (rc == 0) rc = readTouched(&active_);
  if (rc == 0) rc = readTouched(&snapshot_);
  if (rc == 0) rc = visitTouched();
  if (rc == 0) rc = visitPending();
  if (rc == 0) rc = dropHiddenFolders();
  std::sort(inodes_.begin(), inodes_.end(),
            [](const DiffInode &a, const DiffInode &b) { return a.ino < b.ino; });
  visited_.clear();
  active_.touched = {};
  snapshot_.touched = {};
  return rc;
}

const DiffInode *TreeDiff::find(uint64_t ino) const {
  auto at = std::lower_bound(inodes_.begin(), inodes_.end(), ino,
                             [](const DiffInode &one, uint64_t key) { return one.ino < key; });
  return at != inodes_.end() && at->ino == ino ? &*at : nullptr;
}

// The subvolume whose creation drew the line knows when that was. Without it (deleted since) every
// inode that was written is compared in full.
int TreeDiff::findLineTime() {
  SubvolumeTable table;
  int rc = table.load(handle_.root.get());
  if (rc < 0) return rc;
  for (const Subvolume &one : table.all())
    if (one.otransid == line_) line_time_ = one.created;
  return 0;
}

// An inode that was written after the line, for an access time, say, but did not change. Equal times
// alone do not tell: two changes within one tick of the clock leave the same ctime, and the second may
// leave the sequence alone. So they count only where the last change was clearly before the line.
bool TreeDiff::untouched(const InodeItem &now, const InodeItem &then) const {
  return now.ctime == then.ctime && now.sequence == then.sequence &&
         now.ctime.sec < line_time_ - kClockMargin;
}

int TreeDiff::readTouched(Side *side) {
  TreeBatch batch;
  TreeKey from{kFirstInode, 0, 0};
  const TreeKey to{kLastInode, 255, UINT64_MAX};
  for (;;) {
    int rc = batch.read(handle_.root.get(), side->inodes.treeId(), from, to, line_ + 1, kScanBytes);
    if (rc < 0) return rc;
    if (batch.items().empty()) return 0;
    for (const TreeItem &item : batch.items()) {
      if (item.key.type != BTRFS_INODE_ITEM_KEY) continue;
      Found found{item.key.objectid, {}};
      if (!decodeInode(item, &found.item)) return -EUCLEAN;
      // A block that was written comes with all its inodes.
      if (found.item.transid > line_) side->touched.push_back(found);
    }
    from = batch.items().back().key.next();
  }
}

// Goes through both lists of touched inodes as one.
int TreeDiff::visitTouched() {
  auto now = active_.touched.begin(), then = snapshot_.touched.begin();
  while (now != active_.touched.end() || then != snapshot_.touched.end()) {
    bool from_active =
        now != active_.touched.end() && (then == snapshot_.touched.end() || now->ino <= then->ino);
    bool from_snapshot =
        then != snapshot_.touched.end() && (now == active_.touched.end() || then->ino <= now->ino);
    uint64_t ino = from_active ? now->ino : then->ino;
    const InodeItem *active = from_active ? &now->item : nullptr;
    const InodeItem *snapshot = from_snapshot ? &then->item : nullptr;
    InodeItem other;
    int rc = 1;
    if (active == nullptr) {
      rc = readInode(active_.inodes, ino, &other);
      if (rc > 0) active = &other;
    } else if (snapshot == nullptr) {
      rc = readInode(snapshot_.inodes, ino, &other);
      if (rc > 0) snapshot = &other;
    }
    if (rc < 0) return rc;
    visited_.insert(ino);
    rc = visit(ino, active, snapshot);
    if (rc < 0) return rc;
    if (from_active) ++now;
    if (from_snapshot) ++then;
  }
  return 0;
}

// Decides about one inode, and puts those aside that it makes suspect. 0 or -errno.
int TreeDiff::visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot) {
  // Unlinked but still open somewhere: gone.
  if (active != nullptr && active->nlink == 0) active = nullptr;
  if (snapshot != nullptr && snapshot->nlink == 0) snapshot = nullptr;
  if (active == nullptr && snapshot == nullptr) return 0;

  DiffInode one;
  one.ino = ino;
  one.alive = active != nullptr;
  one.in_snapshot = snapshot != nullptr;
  one.item = one.alive ? *active : *snapshot;
  if (active != nullptr && snapshot != nullptr && sameIdentity(*active, *snapshot)) {
    if (untouched(*active, *snapshot)) return 0;
    EntryDifference entries;
    int rc = 0;
    if (S_ISDIR(active->mode))
      rc = diffDirectories(active_.entries, snapshot_.entries, ino, hidden_, &entries);
    if (rc < 0) return rc;
    for (const DirEntryItem &entry : entries.snapshot)
      if (!entry.subvolume) pending_.push_back(entry.target);
    for (const DirEntryItem &entry : entries.active)
      if (!entry.subvolume) pending_.push_back(entry.target);
    if (entries.active.empty() && entries.snapshot.empty()) {
      rc = sameProperties(active_.properties, snapshot_.properties, ino, *active, *snapshot);
      if (rc != 0) return std::min(rc, 0);
    }
  } else {
    one.replaced = active != nullptr && snapshot != nullptr;
    int rc = 0;
    if (snapshot != nullptr && S_ISDIR(snapshot->mode)) rc = visitChildren(&snapshot_, ino);
    // What only the fileset has was made after the line, and was found there, unless the snapshot has a
    // history of its own in which it was deleted.
    if (rc == 0 && active != nullptr && S_ISDIR(active->mode) && !snapshot_.touched.empty())
      rc = visitChildren(&active_, ino);
    if (rc < 0) return rc;
  }
  inodes_.push_back(one);
  return 0;
}

int TreeDiff::visitChildren(Side *side, uint64_t dir) {
  DirEntryItem entry;
  for (uint64_t index = 0;; index = entry.index + 1) {
    int rc = nextEntry(side->entries, dir, index, &entry);
    if (rc <= 0) return rc;
    if (!entry.subvolume) pending_.push_back(entry.target);
    if (entry.index == UINT64_MAX) return 0;
  }
}

int TreeDiff::visitPending() {
  while (!pending_.empty()) {
    // In order, so that neighbours are read together.
    std::vector<uint64_t> these;
    these.swap(pending_);
    std::sort(these.begin(), these.end());
    for (uint64_t ino : these) {
      if (!visited_.insert(ino).second) continue;
      InodeItem active, snapshot;
      int found_active = readInode(active_.inodes, ino, &active);
      int found_snapshot = found_active < 0 ? 0 : readInode(snapshot_.inodes, ino, &snapshot);
      if (found_active < 0 || found_snapshot < 0) return std::min(found_active, found_snapshot);
      int rc =
          visit(ino, found_active > 0 ? &active : nullptr, found_snapshot > 0 ? &snapshot : nullptr);
      if (rc < 0) return rc;
    }
  }
  return 0;
}

// Folders that are hidden as a whole may be ordinary directories with ordinary files in them.
int TreeDiff::dropHiddenFolders() {
  if (inodes_.empty()) return 0;
  std::unordered_set<uint64_t> below;
  for (Side *side : {&active_, &snapshot_}) {
    for (const char *name : {".snapshots", ".unlinked"}) {
      if (!hidden_.hidesName(kFirstInode, name)) continue;
      DirEntryItem entry;
      int rc = findEntry(side->inodes, kFirstInode, name, &entry);
      if (rc < 0) return rc;
      if (rc == 0 || entry.subvolume) continue;
      rc = collectBelow(side, entry.target, &below);
      if (rc < 0) return rc;
    }
  }
  // A file with several names may be known elsewhere, too.
  std::erase_if(inodes_, [&](const DiffInode &one) {
    return below.contains(one.ino) && (S_ISDIR(one.item.mode) || one.item.nlink == 1);
  });
  return 0;
}

int TreeDiff::collectBelow(Side *side, uint64_t dir, std::unordered_set<uint64_t> *inodes) {
  // A tree's directories have one name each: nothing is met twice.
  std::vector<uint64_t> folders{dir};
  inodes->insert(dir);
  while (!folders.empty()) {
    uint64_t folder = folders.back();
    folders.pop_back();
    DirEntryItem entry;
    for (uint64_t index = 0;; index = entry.index + 1) {
      int rc = nextEntry(side->entries, folder, index, &entry);
      if (rc < 0) return rc;
      if (rc == 0) break;
      if (entry.subvolume) continue;
      inodes->insert(entry.target);
      if (entry.type == DT_DIR) folders.push_back(entry.target);
    }
  }
  return 0;
}

}  // namespace kest
