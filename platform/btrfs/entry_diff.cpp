#include "btrfs/entry_diff.h"

#include <endian.h>
#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "btrfs/tree_items.h"

namespace kest {

namespace {

// Bytes that a name of eight characters adds to a directory's size.
constexpr uint64_t kNameSize = 16;

// Reads the DIR_INDEX items of one directory in order.
class IndexCursor {
 public:
  IndexCursor(TreeReader &tree, uint64_t dir) : tree_(tree), key_{dir, BTRFS_DIR_INDEX_KEY, 0} {}

  // Advances. 0 or -errno; then item() is the next item, or NULL after the last.
  int next() {
    item_ = nullptr;
    int rc = tree_.at(key_, &item_);
    if (rc < 0) return rc;
    if (item_ == nullptr || item_->key.objectid != key_.objectid ||
        item_->key.type != BTRFS_DIR_INDEX_KEY) {
      item_ = nullptr;
      return 0;
    }
    key_ = item_->key.next();
    return 0;
  }
  const TreeItem *item() const { return item_; }
  int take(std::vector<DirEntry> *entries) {
    decoded_.clear();
    if (!decodeDirEntries(*item_, &decoded_)) return -EUCLEAN;
    for (DirEntryItem &entry : decoded_) entries->push_back(std::move(entry));
    return 0;
  }

 private:
  TreeReader &tree_;
  TreeKey key_;
  const TreeItem *item_ = nullptr;
  std::vector<DirEntryItem> decoded_;
};

// Whether inode `ino` is the same file in both trees: 1, 0 or -errno.
int sameInode(TreeReader &active, TreeReader &snapshot, uint64_t ino) {
  InodeItem now, then;
  int rc = readInode(active, ino, &now);
  if (rc > 0) rc = readInode(snapshot, ino, &then);
  return rc <= 0 ? rc : sameIdentity(now, then);
}

// Drops entries that a restore leaves alone. 0 or -errno.
int dropHidden(const HiddenEntries &hidden, uint64_t dir, std::vector<DirEntry> *entries) {
  std::vector<DirEntry> shown;
  for (DirEntry &entry : *entries) {
    int hide = entry.junction ? hidden.hidesSubvolume(dir, entry.name, entry.target)
                              : hidden.hidesName(dir, entry.name, entry.type);
    if (hide < 0) return hide;
    if (hide == 0) shown.push_back(std::move(entry));
  }
  *entries = std::move(shown);
  return 0;
}

// Returns true if two items with equal bytes can still mean different inodes. Trees that parted can
// give one number, name and index to different files, but only in a transaction after `line`, the last
// common one.
bool mayDiffer(const TreeItem &item, uint64_t line) {
  btrfs_dir_item head;
  if (item.size < sizeof head) return true;
  memcpy(&head, item.data, sizeof head);
  return le64toh(head.transid) > line;
}

}  // namespace

int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, uint64_t size,
                    uint64_t line, const HiddenEntries &hidden, EntryDifference *difference) {
  // Both trees keep entries in the order of their creation, so most entries meet their counterpart
  // before any name is compared. An entry that was removed and made again has a new index. It appears
  // on both sides, and dropCommonEntries drops it.
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
  if (rc == 0)
    rc = dropCommonEntries(difference, [&](uint64_t ino) { return sameInode(active, snapshot, ino); });
  if (rc == 0) rc = dropHidden(hidden, dir, &difference->active);
  if (rc == 0) rc = dropHidden(hidden, dir, &difference->snapshot);
  return rc;
}

}  // namespace kest
