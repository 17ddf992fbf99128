#include "btrfs/tree_search.h"

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kest {

namespace {

constexpr size_t kSmallest = 1024;
constexpr size_t kItemBytes = 128;  // more than most items take
constexpr uint64_t kNear = 4;       // inodes
constexpr TreeKey kMaxKey{kLastInode, 255, UINT64_MAX};

}  // namespace

TreeKey TreeKey::next() const {
  TreeKey key = *this;
  if (++key.offset != 0) return key;
  if (++key.type <= 255) return key;
  key.type = 0;
  ++key.objectid;
  return key;
}

int TreeBatch::read(int fd, uint64_t tree_id, const TreeKey &from, const TreeKey &to,
                    uint64_t min_transid, size_t want_bytes, uint32_t want_items) {
  items_.clear();
  for (;;) {
    if (capacity_ < want_bytes) {
      size_t words = (sizeof(btrfs_ioctl_search_args_v2) + want_bytes + 7) / 8;
      buffer_ = std::make_unique_for_overwrite<uint64_t[]>(words);
      capacity_ = want_bytes;
    }
    auto *args = reinterpret_cast<btrfs_ioctl_search_args_v2 *>(buffer_.get());
    memset(args, 0, sizeof *args);
    args->key.tree_id = tree_id;
    args->key.min_objectid = from.objectid;
    args->key.min_type = from.type;
    args->key.min_offset = from.offset;
    args->key.max_objectid = to.objectid;
    args->key.max_type = to.type;
    args->key.max_offset = to.offset;
    args->key.min_transid = min_transid;
    args->key.max_transid = UINT64_MAX;
    args->key.nr_items = want_items;
    args->buf_size = want_bytes;
    if (ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, args) < 0) {
      if (errno == EINTR) continue;
      if (errno == EOVERFLOW && args->buf_size > want_bytes) {
        want_bytes = args->buf_size;
        continue;
      }
      return -errno;
    }
    const uint8_t *at = reinterpret_cast<const uint8_t *>(args->buf);
    items_.reserve(args->key.nr_items);
    for (uint32_t i = 0; i < args->key.nr_items; ++i) {
      btrfs_ioctl_search_header header;
      memcpy(&header, at, sizeof header);
      at += sizeof header;
      items_.push_back({{header.objectid, header.type, header.offset}, at, header.len});
      at += header.len;
    }
    return 0;
  }
}

int TreeWindow::read(int fd, uint64_t tree_id, const TreeKey &from, size_t want_bytes,
                     uint32_t want_items) {
  clear();
  int rc = batch_.read(fd, tree_id, from, kMaxKey, 0, want_bytes, want_items);
  if (rc < 0) return rc;
  from_ = from;
  // A search that finds nothing has seen the end of the tree; any other may have stopped at the buffer.
  end_ = batch_.items().empty() ? kMaxKey : batch_.items().back().key.next();
  return 0;
}

const TreeItem *TreeWindow::find(const TreeKey &key, size_t *position) const {
  const std::vector<TreeItem> &items = batch_.items();
  if (items.empty()) return nullptr;
  const size_t next = *position + 1;
  if (next < items.size() && items[*position].key < key && items[next].key >= key)
    *position = next;
  else
    *position = std::lower_bound(items.begin(), items.end(), key,
                                 [](const TreeItem &one, const TreeKey &k) { return one.key < k; }) -
                items.begin();
  return &items[*position];
}

void TreeWindow::clear() {
  batch_.clear();
  from_ = end_ = {};
}

void TreeReader::forget() {
  own_.clear();
}

void TreeReader::expect(uint64_t items) {
  expected_ = static_cast<uint32_t>(std::clamp<uint64_t>(items, first_items_, kMostItems));
}

int TreeReader::fetch(const TreeKey &key, const TreeKey &from) {
  // Reading past a few inodes takes as long as one more search.
  const bool onwards =
      own_.end() != TreeKey{} && key >= own_.end() && key.objectid - own_.end().objectid < kNear;
  want_items_ = expected_ != 0 ? expected_
                : onwards      ? std::min(want_items_ * 2, most_items_)
                               : first_items_;
  expected_ = 0;
  position_ = 0;
  return own_.read(fd_, tree_id_, from, std::max(kSmallest, want_items_ * kItemBytes), want_items_);
}

int TreeReader::at(const TreeKey &key, const TreeItem **item) {
  *item = nullptr;
  if (shared_ != nullptr && shared_->holds(key)) {
    *item = shared_->find(key, &shared_position_);
    return *item != nullptr;
  }
  if (!own_.holds(key)) {
    if (key >= kMaxKey) return 0;
    // Callers that read an inode usually read its names next, so start at the inode item.
    const TreeKey inode{key.objectid, 0, 0};
    const bool goes_on = own_.from() >= inode && key >= own_.end();
    int rc = fetch(key, key.type <= BTRFS_XATTR_ITEM_KEY && !goes_on ? inode : key);
    if (rc == 0 && key >= own_.end()) rc = fetch(key, key);
    if (rc < 0) return rc;
  }
  *item = own_.find(key, &position_);
  return *item != nullptr;
}

int largestInode(int fd, uint64_t tree_id, uint64_t *ino) {
  // A tree search only goes forward. So search at growing distances until nothing follows, then halve
  // the interval. Every hit raises its lower end to the inode that was found.
  TreeBatch batch;
  uint64_t low = 0;
  auto probe = [&](uint64_t from, uint64_t *found) {
    int rc = batch.read(fd, tree_id, {from, 0, 0}, kMaxKey, 0, kSmallest, 1);
    *found = rc == 0 && !batch.items().empty() ? batch.items().back().key.objectid : 0;
    return rc;
  };
  uint64_t found = 0;
  int rc = probe(kFirstInode, &found);
  uint64_t high = 0;  // nothing at or above
  for (uint64_t step = 1; rc == 0 && found != 0; step = step > UINT64_MAX / 8 ? UINT64_MAX : step * 8) {
    low = found;
    if (step > kLastInode - low) {
      high = kLastInode;
      break;
    }
    high = low + step;
    rc = probe(high, &found);
  }
  while (rc == 0 && high - low > 1) {
    uint64_t middle = low + (high - low) / 2;
    rc = probe(middle, &found);
    if (found != 0)
      low = found;
    else
      high = middle;
  }
  *ino = low;
  return rc;
}

}  // namespace kest
