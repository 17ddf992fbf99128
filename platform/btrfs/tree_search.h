// Reading the items of a btrfs tree through BTRFS_IOC_TREE_SEARCH_V2.
//
// A search sees what is committed and most of the running transaction; delayed inode updates, delayed
// directory index items and unwritten data appear after a commit only.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kest {

// The numbers of inodes and subvolumes lie in this range. Those outside it belong to btrfs itself.
inline constexpr uint64_t kFirstInode = 256;
inline constexpr uint64_t kLastInode = UINT64_MAX - 255;

struct TreeKey {
  uint64_t objectid = 0;
  uint32_t type = 0;  // 0 to 255
  uint64_t offset = 0;

  auto operator<=>(const TreeKey &) const = default;
  // Returns the next greater key.
  TreeKey next() const;
};

struct TreeItem {
  TreeKey key;
  const uint8_t *data = nullptr;  // `size` bytes in the buffer that the search filled
  uint32_t size = 0;
};

// One buffer of items. Reused between searches, grown when a single item asks for more.
class TreeBatch {
 public:
  // Fills the batch with the first items of tree `tree_id` in [from, to] that lie in tree blocks
  // written in transaction `min_transid` or later, at most `want_items` of them and about `want_bytes`.
  // `fd` is any descriptor on the file system, except O_PATH. 0 or -errno.
  int read(int fd, uint64_t tree_id, const TreeKey &from, const TreeKey &to, uint64_t min_transid,
           size_t want_bytes, uint32_t want_items = UINT32_MAX);
  const std::vector<TreeItem> &items() const { return items_; }
  void clear() { items_.clear(); }

 private:
  std::unique_ptr<uint64_t[]> buffer_;
  size_t capacity_ = 0;  // bytes
  std::vector<TreeItem> items_;
};

// A part of a tree that was read whole: it holds every item in a range of keys.
class TreeWindow {
 public:
  // Reads the items of the tree from `from` on, as TreeBatch::read() does. 0 or -errno.
  int read(int fd, uint64_t tree_id, const TreeKey &from, size_t want_bytes,
           uint32_t want_items = UINT32_MAX);
  bool holds(const TreeKey &key) const { return key >= from_ && key < end_; }
  // Returns the first item at or after `key`, for which holds() must be true; NULL if the tree has no
  // such item. `position` keeps the last answer, so that ascending keys need no search in the window.
  const TreeItem *find(const TreeKey &key, size_t *position) const;
  const TreeKey &from() const { return from_; }
  const TreeKey &end() const { return end_; }
  const TreeBatch &batch() const { return batch_; }
  // Makes the window hold nothing.
  void clear();

 private:
  TreeBatch batch_;
  TreeKey from_, end_;  // every item in [from_, end_)
};

// Random and sequential access to the file-system items (objectid 256 and up) of one tree. Reads
// neighbouring items together and caches them, and reads more at a time while the keys asked for ascend
// closely.
class TreeReader {
 public:
  static constexpr uint32_t kMostItems = 2048;
  // `first_items` are read for a key that is not close to the last one; the default suffices for an
  // inode with its names and the first range of its data. While the keys ascend closely, up to
  // `most_items` are read at a time. Use a small number for a reader that answers only a few calls,
  // because it would not use most of what it reads ahead.
  TreeReader(int fd, uint64_t tree_id, uint32_t first_items = 4, uint32_t most_items = kMostItems)
      : fd_(fd), tree_id_(tree_id), first_items_(first_items), most_items_(most_items) {}
  uint64_t treeId() const { return tree_id_; }
  int fd() const { return fd_; }

  // 1 and the first item at or after `key`, valid until the next call; 0 when there is none; -errno.
  int at(const TreeKey &key, const TreeItem **item);
  // From now on answers from `window`, instead of reading, if that holds the key. The window must
  // outlive this; NULL ends it.
  void lookIn(const TreeWindow *window) { shared_ = window; }
  // Announces that the next key is not close to the last one, and how many items will be asked for.
  void expect(uint64_t items);
  // Returns the items that are cached now, in order.
  const std::vector<TreeItem> &cached() const { return own_.batch().items(); }
  // Drops the cached items. Call this if the tree may have changed since they were read.
  void forget();

 private:
  // Reads items from `from` on, because `key` was asked for.
  int fetch(const TreeKey &key, const TreeKey &from);

  int fd_;
  uint64_t tree_id_;
  uint32_t first_items_, most_items_;
  TreeWindow own_;
  const TreeWindow *shared_ = nullptr;
  size_t position_ = 0, shared_position_ = 0;  // of the last answers
  uint32_t want_items_ = 0;
  uint32_t expected_ = 0;  // from expect(); 0 if it was not called since the last read
};

// 0 and the largest objectid in [256, kLastInode] that has an item, 0 if none; -errno.
int largestInode(int fd, uint64_t tree_id, uint64_t *ino);

}  // namespace kest
