#include "libkest/entry_diff.h"

#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "libkest/dir_read.h"
#include "libkest/tree_diff.h"

namespace kest {

namespace {

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

int listSnapshotDirectory(TreeReader &tree, uint64_t dir, const HiddenEntries &hidden,
                          std::vector<DirEntryItem> *entries) {
  IndexCursor cursor(tree, dir);
  int rc;
  while ((rc = cursor.next()) == 0 && cursor.item() != nullptr) {
    rc = cursor.take(entries);
    if (rc < 0) break;
  }
  return rc < 0 ? rc : dropHidden(hidden, dir, entries);
}

}  // namespace

int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, const HiddenEntries &hidden,
                    EntryDifference *difference) {
  // Both sides keep their entries in the order in which they were made, so that most of them meet their
  // counterpart without a name being looked at.
  IndexCursor now(active, dir), then(snapshot, dir);
  int rc = now.next();
  if (rc == 0) rc = then.next();
  while (rc == 0 && (now.item() != nullptr || then.item() != nullptr)) {
    const TreeItem *a = now.item(), *b = then.item();
    if (a != nullptr && b != nullptr && a->key.offset == b->key.offset) {
      if (a->size != b->size || memcmp(a->data, b->data, a->size) != 0) {
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
  const DiffInode *own = diff.find(file->if_inode);
  if (own == nullptr || !own->alive) return 0;
  const kest_fssnap_handle &handle = *file->handle;
  HiddenEntries hidden(handle, snapshot_id);
  std::vector<kest_direntx64_t> active;
  int rc = listDirectory(file, hidden, &active);
  if (rc < 0) return rc;
  std::erase_if(active, [](const kest_direntx64_t &record) {
    return strcmp(record.d_name, ".") == 0 || strcmp(record.d_name, "..") == 0;
  });
  TreeReader snapshot(handle.root.get(), snapshot_id);
  std::vector<DirEntryItem> entries;
  if (own->in_snapshot && !own->replaced) {
    rc = listSnapshotDirectory(snapshot, file->if_inode, hidden, &entries);
    if (rc < 0) return rc;
  }

  auto less = [](const kest_direntx64_t &a, const kest_direntx64_t &b) {
    return strcmp(a.d_name, b.d_name) < 0;
  };
  // An inode whose name came or changed is in the difference, which knows its generation.
  auto takeActive = [&](kest_direntx64_t record) {
    const DiffInode *inode =
        (record.d_flags & KEST_DF_JUNCTION) != 0 ? nullptr : diff.find(record.d_ino);
    if (inode != nullptr && inode->alive) record.d_gen = inode->item.generation;
    file->changed.push_back(record);
  };
  auto takeSnapshot = [&](const DirEntryItem &entry) {
    kest_direntx64_t record = toRecord(entry);
    record.d_type |= KEST_DT_SNAP;
    InodeItem item;
    int found = entry.subvolume ? 0 : readInode(snapshot, entry.target, &item);
    if (found > 0) record.d_gen = item.generation;
    file->changed.push_back(record);
    return std::min(found, 0);
  };
  std::sort(active.begin(), active.end(), less);
  std::sort(entries.begin(), entries.end(),
            [](const DirEntryItem &a, const DirEntryItem &b) { return a.name < b.name; });
  auto now = active.begin();
  auto then = entries.begin();
  while (rc == 0 && (now != active.end() || then != entries.end())) {
    int order = now == active.end()     ? 1
                : then == entries.end() ? -1
                                        : strcmp(now->d_name, then->name.c_str());
    if (order < 0) {
      takeActive(*now++);
    } else if (order > 0) {
      rc = takeSnapshot(*then++);
    } else {
      bool junction = (now->d_flags & KEST_DF_JUNCTION) != 0;
      bool same = now->d_ino == then->target && junction == then->subvolume;
      if (same && !junction) {
        const DiffInode *child = diff.find(now->d_ino);
        same = child == nullptr || !child->replaced;
      }
      if (!same) {
        takeActive(*now);
        rc = takeSnapshot(*then);
      }
      ++now;
      ++then;
    }
  }
  return rc;
}

}  // namespace kest
