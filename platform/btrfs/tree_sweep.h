// The sweep: which inodes of a tree were written after a transaction, read from the tree blocks that
// were written after it.
//
// "The line" is the last transaction that the fileset and its snapshot have in common. What differs was
// written after it in one of the two trees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "btrfs/tree_items.h"
#include "btrfs/tree_search.h"

namespace kest {

// The inodes of a batch of items that were written after the line, in the order of their numbers.
class TouchedInBatch {
 public:
  explicit TouchedInBatch(uint64_t line) : line_(line) {}

  void begin(const TreeBatch &batch) {
    batch_ = &batch;
    position_ = 0;
  }
  // Goes to the next inode. ino() is 0 afterwards if there is none. 0 or -errno.
  int next();
  uint64_t ino() const { return ino_; }
  const InodeItem &item() const { return item_; }

 private:
  uint64_t line_;
  const TreeBatch *batch_ = nullptr;
  size_t position_ = 0;
  uint64_t ino_ = 0;
  InodeItem item_;
};

// The inodes of one tree in [first, last] that were written after the line, in the order of their
// numbers.
class TouchedInodes {
 public:
  TouchedInodes(int fd, uint64_t tree_id, uint64_t line, uint64_t first, uint64_t last)
      : fd_(fd), tree_id_(tree_id), line_(line), from_{first, 0, 0}, last_(last), touched_(line) {
    touched_.begin(batch_);
  }

  // As TouchedInBatch::next().
  int next();
  uint64_t ino() const { return touched_.ino(); }
  const InodeItem &item() const { return touched_.item(); }

 private:
  int fd_;
  uint64_t tree_id_, line_;
  TreeKey from_;
  uint64_t last_;
  TreeBatch batch_;
  TouchedInBatch touched_;
};

// What one thread takes at a time: the inodes of both trees in [first, last], with the active tree's
// items among them.
struct TouchedChunk {
  uint64_t first = 0, last = 0;
  bool whole = false;  // `window` holds all items of the range, and `touched` is not used
  TreeBatch touched;   // the items of the blocks that were written after the line
  TreeWindow window;
  const TreeBatch &active() const { return whole ? window.batch() : touched; }
};

// Divides the active tree into chunks for the threads of a comparison.
//
// The sweep reads only blocks that were written after the line. Each touched inode then costs searches
// of its own, because some of its items may be in other blocks. Where nearly every block was written,
// it is cheaper to read all blocks: then the chunk holds all items that the comparison asks for.
class TouchedChunks {
 public:
  TouchedChunks(int fd, uint64_t tree_id, uint64_t line) : fd_(fd), tree_id_(tree_id), line_(line) {}

  // 1, 0 at the end, -errno. The range of the last chunk has no end, because the snapshot may have
  // inodes with higher numbers than the fileset. Safe to call from several threads.
  int next(TouchedChunk *chunk);

 private:
  int findDensity(const TreeBatch &batch);

  std::mutex mutex_;
  int fd_;
  uint64_t tree_id_, line_;
  TreeKey from_{kFirstInode, 0, 0};
  uint64_t first_ = kFirstInode;
  size_t bytes_ = 16 * 1024;  // of the next chunk; grows, so that threads share a small tree as well
  bool at_end_ = false;
  bool dense_ = true;  // the next chunk is read whole
};

inline constexpr size_t kScanBytes = 256 * 1024;  // what one search of a sweep reads at most

}  // namespace kest
