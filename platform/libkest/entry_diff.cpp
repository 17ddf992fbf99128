#include "libkest/entry_diff.h"

#include <endian.h>
#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "libkest/dir_read.h"
#include "libkest/entry_check.h"
#include "libkest/tree_diff.h"

namespace kest {

namespace {

// What a name of eight bytes counts in a directory's size.
constexpr uint64_t kNameSize = 16;

// One directory's DIR_INDEX items, one after the other.
class IndexCursor {
 public:
  IndexCursor(TreeReader &tree, uint64_t dir) : tree_(tree), key_{dir, BTRFS_DIR_INDEX_KEY, 0} {}

  // 0 or -errno; afterwards item() is the next one, or NULL.
  int next() {
    item_ = nullptr;
    int rc = tree_.at(key_, &item_);
    if (rc < 0) return rc;
    if (rc == 0 || item_->key.objectid != key_.objectid || item_->key.type != BTRFS_DIR_INDEX_KEY) {
      item_ = nullptr;
      return 0;
    }
    key_ = item_->key.next();
    return 0;
  }
  const TreeItem *item() const { return item_; }
  int take(std::vector<DirEntryItem> *entries) const {
    return decodeDirEntries(*item_, entries) ? 0 : -EUCLEAN;
  }

 private:
  TreeReader &tree_;
  TreeKey key_;
  const TreeItem *item_ = nullptr;
};

auto byName(const DirEntryItem &entry) {
  return std::tie(entry.name, entry.target, entry.subvolume);
}

// Whether inode `ino` is the same file in both trees. 1, 0 or -errno.
int sameInode(TreeReader &active, TreeReader &snapshot, uint64_t ino) {
  InodeItem now, then;
  int rc = readInode(active, ino, &now);
  if (rc > 0) rc = readInode(snapshot, ino, &then);
  return rc <= 0 ? rc : sameIdentity(now, then);
}

// Drops what both sides have after all: an entry that was removed and made again has another index.
int dropCommon(TreeReader &active, TreeReader &snapshot, EntryDifference *difference) {
  auto less = [](const DirEntryItem &a, const DirEntryItem &b) { return byName(a) < byName(b); };
  std::sort(difference->active.begin(), difference->active.end(), less);
  std::sort(difference->snapshot.begin(), difference->snapshot.end(), less);
  std::vector<DirEntryItem> only_active, only_snapshot;
  auto now = difference->active.begin(), now_end = difference->active.end();
  auto then = difference->snapshot.begin(), then_end = difference->snapshot.end();
  while (now != now_end || then != then_end) {
    if (then == then_end || (now != now_end && less(*now, *then))) {
      only_active.push_back(std::move(*now++));
    } else if (now == now_end || less(*then, *now)) {
      only_snapshot.push_back(std::move(*then++));
    } else {
      int same = now->subvolume ? 1 : sameInode(active, snapshot, now->target);
      if (same < 0) return same;
      if (same == 0) {
        only_active.push_back(std::move(*now));
        only_snapshot.push_back(std::move(*then));
      }
      ++now;
      ++then;
    }
  }
  difference->active = std::move(only_active);
  difference->snapshot = std::move(only_snapshot);
  return 0;
}

// Takes out what belongs to nobody's restore. 0 or -errno.
int dropHidden(const HiddenEntries &hidden, uint64_t dir, std::vector<DirEntryItem> *entries) {
  std::vector<DirEntryItem> shown;
  for (DirEntryItem &entry : *entries) {
    int hide = entry.subvolume ? hidden.hidesSubvolume(dir, entry.name, entry.target)
                               : hidden.hidesName(dir, entry.name);
    if (hide < 0) return hide;
    if (hide == 0) shown.push_back(std::move(entry));
  }
  *entries = std::move(shown);
  return 0;
}

// Whether two items, equal in every byte, may mean different inodes: two relatives with histories of
// their own can give one number, name and place to different files, behind the line only.
bool mayDiffer(const TreeItem &item, uint64_t line) {
  btrfs_dir_item head;
  if (item.size < sizeof head) return true;
  memcpy(&head, item.data, sizeof head);
  return le64toh(head.transid) > line;
}

}  // namespace

int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, uint64_t size,
                    uint64_t line, const HiddenEntries &hidden, EntryDifference *difference) {
  // Both sides keep their entries in the order in which they were made, so that most of them meet their
  // counterpart without a name being looked at.
  active.expect(size / kNameSize + 2);
  snapshot.expect(size / kNameSize + 2);
  IndexCursor now(active, dir), then(snapshot, dir);
  int rc = now.next();
  if (rc == 0) rc = then.next();
  while (rc == 0 && (now.item() != nullptr || then.item() != nullptr)) {
    const TreeItem *a = now.item(), *b = then.item();
    if (a != nullptr && b != nullptr && a->key.offset == b->key.offset) {
      if (a->size != b->size || memcmp(a->data, b->data, a->size) != 0 || mayDiffer(*a, line)) {
        rc = now.take(&difference->active);
        if (rc == 0) rc = then.take(&difference->snapshot);
      }
      if (rc == 0) rc = now.next();
      if (rc == 0) rc = then.next();
    } else if (b == nullptr || (a != nullptr && a->key.offset < b->key.offset)) {
      rc = now.take(&difference->active);
      if (rc == 0) rc = now.next();
    } else {
      rc = then.take(&difference->snapshot);
      if (rc == 0) rc = then.next();
    }
  }
  if (rc == 0) rc = dropCommon(active, snapshot, difference);
  if (rc == 0) rc = dropHidden(hidden, dir, &difference->active);
  if (rc == 0) rc = dropHidden(hidden, dir, &difference->snapshot);
  return rc;
}

int listChangedEntries(OpenInode *file, const TreeDiff &diff, uint64_t snapshot_id) {
  file->changed.clear();
  const uint64_t dir = file->if_inode;
  const DiffInode own = diff.find(dir);
  if (!own.alive()) return 0;
  const kest_fssnap_handle &handle = *file->handle;
  HiddenEntries hidden(handle, snapshot_id);
  // A directory that only the fileset has is new as a whole.
  if (!own.inSnapshot() || own.replaced()) return listDirectory(file, hidden, false, &file->changed);
  if ((own.state & KEST_DI_ENTRIES) == 0) return 0;
  const int fs = handle.root.get();
  TreeReader active(fs, handle.subvol_id, 1), snapshot(fs, snapshot_id, 1);
  EntryDifference difference;
  int rc = diffDirectories(active, snapshot, dir, file->if_size, diff.line(), hidden, &difference);
  if (rc < 0) return rc;
  EntryCheck check(*file);

  auto takeActive = [&](const DirEntryItem &entry) {
    kest_direntx64_t record = toRecord(entry);
    int there = check.stillMeans(&record);
    if (there > 0) file->changed.add(record);
    return std::min(there, 0);
  };
  auto takeSnapshot = [&](const DirEntryItem &entry) {
    kest_direntx64_t record = toRecord(entry);
    int there = check.stillMeans(&record);
    if (there < 0 || (there > 0 && (entry.subvolume || !diff.find(entry.target).replaced())))
      return std::min(there, 0);
    record.d_type |= KEST_DT_SNAP;
    InodeItem item;
    int found = entry.subvolume ? 0 : readInode(snapshot, entry.target, &item);
    record.d_gen = found > 0 ? item.generation : 0;
    file->changed.add(record);
    return std::min(found, 0);
  };
  auto now = difference.active.begin();
  auto then = difference.snapshot.begin();
  while (rc == 0 && (now != difference.active.end() || then != difference.snapshot.end())) {
    if (then == difference.snapshot.end() ||
        (now != difference.active.end() && now->name <= then->name))
      rc = takeActive(*now++);
    else
      rc = takeSnapshot(*then++);
  }
  return rc;
}

}  // namespace kest
