#include "btrfs/extent_diff.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"
#include "btrfs/file_handle.h"
#include "btrfs/tree_items.h"

namespace kest {

namespace {

// An extent that covers an offset can begin this much before it. No extent with data is longer.
constexpr uint64_t kLongestExtent = 1ull << 30;

constexpr uint64_t kBlock = 4096;
constexpr size_t kReadBytes = 256 * 1024;

// Walks the extent map of one file forwards.
class ExtentCursor {
 public:
  ExtentCursor(TreeReader &tree, uint64_t ino, uint64_t start)
      : tree_(tree), ino_(ino), next_(start > kLongestExtent ? start - kLongestExtent : 0) {}

  // Moves to `position`, which must never decrease. 0 or -errno.
  int advance(uint64_t position) {
    while (more_ && item_.start + item_.length <= position) {
      int rc = nextExtent(tree_, ino_, next_, &item_);
      if (rc < 0) return rc;
      more_ = rc > 0;
      if (more_) next_ = item_.start + 1;
    }
    inside_ = more_ && item_.start <= position;
    end_ = !more_ ? UINT64_MAX : inside_ ? item_.start + item_.length : item_.start;
    return 0;
  }
  bool hole() const { return !inside_ || item_.hole; }
  uint64_t end() const { return end_; }  // end of the extent or hole at the position
  const ExtentItem &item() const { return item_; }

 private:
  TreeReader &tree_;
  uint64_t ino_;
  uint64_t next_;  // file offset at which to search the next item
  ExtentItem item_;
  bool more_ = true, inside_ = false;
  uint64_t end_ = 0;
};

bool sameExtent(const ExtentItem &a, const ExtentItem &b, uint64_t from, uint64_t to) {
  if (a.is_inline != b.is_inline || a.compression != b.compression) return false;
  // The same extent at the same offset into it. Equal addresses alone can be different parts of an
  // extent.
  if (!a.is_inline) return a.disk == b.disk && a.shift == b.shift;
  if (a.compression != 0 || a.start != 0 || b.start != 0) return a.inline_data == b.inline_data;
  if (to > a.inline_data.size() || to > b.inline_data.size()) return false;
  return a.inline_data.compare(from, to - from, b.inline_data, from, to - from) == 0;
}

// A range in which each of both files has one extent or one hole.
struct Stretch {
  uint64_t start = 0, end = 0;  // bytes
  bool hole_now = false, hole_then = false;
  bool shared = false;     // the same extent, or a hole in both
  bool shareable = false;  // the snapshot's data can be shared: it is no inline extent
};

// Calls visit(stretch) for consecutive stretches until it returns false. 0 or -errno.
template <typename Visit>
int visitStretches(const InodeOfTree &active, const InodeOfTree &snapshot, uint64_t start, uint64_t end,
                   Visit visit) {
  ExtentCursor now(active.tree, active.ino, start), then(snapshot.tree, snapshot.ino, start);
  for (uint64_t at = start; at < end;) {
    int rc = now.advance(at);
    if (rc == 0) rc = then.advance(at);
    if (rc < 0) return rc;
    Stretch stretch{at, std::min({end, now.end(), then.end()}), now.hole(), then.hole()};
    stretch.shared = stretch.hole_now || stretch.hole_then
                         ? stretch.hole_now && stretch.hole_then
                         : sameExtent(now.item(), then.item(), at, stretch.end);
    stretch.shareable = !stretch.hole_then && !then.item().is_inline;
    if (!visit(stretch)) return 0;
    at = stretch.end;
  }
  return 0;
}

// Returns true if the stretch, in a file of `size` bytes, contains a whole block. A hole can be
// distinguished from data only then.
bool hasBlock(const Stretch &stretch, uint64_t size) {
  const uint64_t first = (stretch.start + kBlock - 1) / kBlock * kBlock;
  return first < (stretch.end == size ? size : stretch.end / kBlock * kBlock);
}

UniqueFd openFile(const InodeOfTree &file) {
  // Do not change the access time, and do not wait for the holder of a lease.
  return UniqueFd(openByInode(file.tree.fd(), file.tree.treeId(), file.ino, 0,
                              O_RDONLY | O_NONBLOCK | O_NOATIME | O_NOFOLLOW | O_CLOEXEC));
}

bool readWhole(int fd, uint64_t at, std::vector<char> *buffer, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = pread(fd, buffer->data() + done, size - done, static_cast<off_t>(at + done));
    if (n <= 0 && !(n < 0 && errno == EINTR)) return false;
    done += static_cast<size_t>(std::max<ssize_t>(n, 0));
  }
  return true;
}

// Returns true if both files have equal bytes in [at, end). Data that cannot be read is not equal.
bool readsAlike(int now, int then, uint64_t at, uint64_t end) {
  std::vector<char> a(kReadBytes), b(kReadBytes);
  for (size_t size; at < end; at += size) {
    size = std::min<uint64_t>(kReadBytes, end - at);
    if (!readWhole(now, at, &a, size) || !readWhole(then, at, &b, size)) return false;
    if (memcmp(a.data(), b.data(), size) != 0) return false;
  }
  return true;
}

}  // namespace

int diffExtents(TreeReader &active, TreeReader &snapshot, uint64_t ino, uint64_t start, uint64_t end,
                size_t limit, std::vector<FileRange> *ranges) {
  const size_t first = ranges->size();
  return visitStretches({active, ino}, {snapshot, ino}, start, end, [&](const Stretch &one) {
    if (one.shared) return true;
    FileRange *last = ranges->size() > first ? &ranges->back() : nullptr;
    if (last != nullptr && last->start + last->length == one.start && last->hole == one.hole_then)
      last->length += one.end - one.start;
    else if (ranges->size() - first == limit)
      return false;
    else
      ranges->push_back({one.start, one.end - one.start, one.hole_then});
    return true;
  });
}

int sameData(const InodeOfTree &active, const InodeOfTree &snapshot, uint64_t size, bool shared_only) {
  std::vector<FileRange> unshared;
  bool same = true;
  int rc = visitStretches(active, snapshot, 0, size, [&](const Stretch &one) {
    if (one.shared) return true;
    if (shared_only && one.shareable) same = false;
    if (one.hole_now != one.hole_then && hasBlock(one, size)) same = false;
    if (!unshared.empty() && unshared.back().start + unshared.back().length == one.start)
      unshared.back().length += one.end - one.start;
    else
      unshared.push_back({one.start, one.end - one.start, false});
    return same;
  });
  if (rc < 0 || !same || unshared.empty()) return rc < 0 ? rc : same;
  const UniqueFd now = openFile(active), then = openFile(snapshot);
  if (!now || !then) return 0;
  return std::all_of(unshared.begin(), unshared.end(), [&](const FileRange &range) {
    return readsAlike(now.get(), then.get(), range.start, range.start + range.length);
  });
}

}  // namespace kest
