#include "btrfs/extent_diff.h"

#include <algorithm>

#include "btrfs/tree_items.h"

namespace kest {

namespace {

// A search cannot go backward; no extent item with data reaches further than this.
constexpr uint64_t kLongestExtent = 1ull << 30;

// Walks one file's extent map forward.
class ExtentCursor {
 public:
  ExtentCursor(TreeReader &tree, uint64_t ino, uint64_t start)
      : tree_(tree), ino_(ino), next_(start > kLongestExtent ? start - kLongestExtent : 0) {}

  // Goes to `position`, which never decreases. 0 or -errno.
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
  uint64_t end() const { return end_; }  // of what is at the position
  const ExtentItem &item() const { return item_; }

 private:
  TreeReader &tree_;
  uint64_t ino_;
  uint64_t next_;  // where to look for the next item
  ExtentItem item_;
  bool more_ = true, inside_ = false;
  uint64_t end_ = 0;
};

bool sameData(const ExtentItem &a, const ExtentItem &b, uint64_t from, uint64_t to) {
  if (a.is_inline != b.is_inline || a.compression != b.compression) return false;
  if (!a.is_inline) return a.disk == b.disk && a.shift == b.shift;
  if (a.compression != 0 || a.start != 0 || b.start != 0) return a.inline_data == b.inline_data;
  if (to > a.inline_data.size() || to > b.inline_data.size()) return false;
  return a.inline_data.compare(from, to - from, b.inline_data, from, to - from) == 0;
}

}  // namespace

int diffExtents(TreeReader &active, TreeReader &snapshot, uint64_t ino, uint64_t start, uint64_t end,
                size_t limit, std::vector<FileRange> *ranges) {
  ExtentCursor now(active, ino, start), then(snapshot, ino, start);
  size_t first = ranges->size();
  for (uint64_t at = start; at < end;) {
    int rc = now.advance(at);
    if (rc == 0) rc = then.advance(at);
    if (rc < 0) return rc;
    uint64_t stop = std::min({end, now.end(), then.end()});
    bool same = now.hole() || then.hole() ? now.hole() && then.hole()
                                          : sameData(now.item(), then.item(), at, stop);
    if (!same) {
      FileRange *last = ranges->size() > first ? &ranges->back() : nullptr;
      if (last != nullptr && last->start + last->length == at && last->hole == then.hole()) {
        last->length += stop - at;
      } else {
        if (ranges->size() - first == limit) return 0;
        ranges->push_back({at, stop - at, then.hole()});
      }
    }
    at = stop;
  }
  return 0;
}

}  // namespace kest
