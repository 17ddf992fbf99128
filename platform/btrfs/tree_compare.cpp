#include "btrfs/tree_compare.h"

#include <dirent.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/threads.h"
#include "btrfs/entry_diff.h"
#include "btrfs/inode_compare.h"
#include "btrfs/inode_flags.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "btrfs/twin_search.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

constexpr size_t kFirstScanBytes = 16 * 1024, kScanBytes = 256 * 1024;

constexpr int64_t kClockMargin = 2;  // seconds

constexpr size_t kPendingMost = 64 * 1024;

constexpr size_t kWorthThreads = 256;  // inodes

// A search in a tree takes as long as reading so many items.
constexpr size_t kItemsPerSearch = 24;

constexpr unsigned kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;

// Of an inode of both trees, beside KEST_DI_* bits.
constexpr unsigned kDiffers = 1u << 16;    // it is in the difference
constexpr unsigned kDoubtful = 1u << 17;   // twins decide
constexpr unsigned kRelations = 1u << 18;  // whether names and clone attributes are equal

void sortOnce(std::vector<uint64_t> *numbers) {
  std::sort(numbers->begin(), numbers->end());
  numbers->erase(std::unique(numbers->begin(), numbers->end()), numbers->end());
}

// The bits for a DiffInode that tell of the fileset's inode alone.
unsigned kindOf(const InodeItem &active) {
  if (!S_ISREG(active.mode)) return 0;
  return kDiffRegular |
         ((storageFlagsOfItem(active.mode, active.flags) & FS_NOCOW_FL) != 0 ? kDiffNoCow : 0);
}

bool severalNames(const InodeItem *item) {
  return item != nullptr && !S_ISDIR(item->mode) && item->nlink > 1;
}

// The inodes of a batch of items that were written after the line, by number.
class TouchedInBatch {
 public:
  explicit TouchedInBatch(uint64_t line) : line_(line) {}

  void begin(const TreeBatch &batch) {
    batch_ = &batch;
    position_ = 0;
  }
  // 0 or -errno; afterwards ino() is the next one, or 0.
  int next() {
    ino_ = 0;
    for (; position_ < batch_->items().size(); ++position_) {
      const TreeItem &item = batch_->items()[position_];
      if (item.key.type != BTRFS_INODE_ITEM_KEY) continue;
      if (!decodeInode(item, &item_)) return -EUCLEAN;
      // A block that was written comes with all its inodes.
      if (item_.transid <= line_) continue;
      ino_ = item.key.objectid;
      ++position_;
      break;
    }
    return 0;
  }
  uint64_t ino() const { return ino_; }
  const InodeItem &item() const { return item_; }

 private:
  uint64_t line_;
  const TreeBatch *batch_ = nullptr;
  size_t position_ = 0;
  uint64_t ino_ = 0;
  InodeItem item_;
};

// The inodes of one tree in [first, last] that were written after the line, by number.
class TouchedInodes {
 public:
  TouchedInodes(int fd, uint64_t tree_id, uint64_t line, uint64_t first, uint64_t last)
      : fd_(fd), tree_id_(tree_id), line_(line), from_{first, 0, 0}, last_(last), touched_(line) {
    touched_.begin(batch_);
  }

  // 0 or -errno; afterwards ino() is the next one, or 0.
  int next() {
    for (;;) {
      if (int rc = touched_.next(); rc < 0 || touched_.ino() != 0) return rc;
      int rc = batch_.read(fd_, tree_id_, from_, {last_, 255, UINT64_MAX}, line_ + 1, kScanBytes);
      if (rc < 0 || batch_.items().empty()) return rc;
      from_ = batch_.items().back().key.next();
      touched_.begin(batch_);
    }
  }
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

// What one thread takes at a time: the inodes of both trees in [first, last], and the items of the
// active tree's touched blocks among them.
struct TouchedChunk {
  uint64_t first = 0, last = 0;
  bool whole = false;  // `window` holds all items of the range instead, and `touched` is not used
  TreeBatch touched;
  TreeWindow window;
  const TreeBatch &active() const { return whole ? window.batch() : touched; }
};

// Divides the active tree's touched blocks among threads. Where nearly all blocks were touched, and
// many inodes in each, it reads all blocks: then a comparison needs no search for the inodes' items.
class TouchedChunks {
 public:
  TouchedChunks(int fd, uint64_t tree_id, uint64_t line) : fd_(fd), tree_id_(tree_id), line_(line) {}

  // 1, 0 at the end, -errno. The last chunk goes to the end of the snapshot.
  int next(TouchedChunk *chunk) {
    const std::lock_guard<std::mutex> hold(mutex_);
    if (at_end_) return 0;
    chunk->whole = dense_;
    const TreeKey most{kLastInode, 255, UINT64_MAX};
    int rc = dense_ ? chunk->window.read(fd_, tree_id_, from_, bytes_)
                    : chunk->touched.read(fd_, tree_id_, from_, most, line_ + 1, bytes_);
    if (rc < 0) return rc;
    bytes_ = std::min(2 * bytes_, kScanBytes);
    const std::vector<TreeItem> &items = chunk->active().items();
    at_end_ = items.empty();
    chunk->first = first_;
    chunk->last = kLastInode;
    if (at_end_) return 1;
    const TreeKey &end = items.back().key;
    chunk->last = end.objectid;
    from_ = end.next();
    // What is left of the last inode has no inode item: it is no inode of the next chunk.
    first_ = end.objectid + 1;
    return findDensity(chunk->active());
  }

 private:
  // 1 or -EUCLEAN.
  int findDensity(const TreeBatch &batch) {
    size_t touched = 0;
    TouchedInBatch inodes(line_);
    inodes.begin(batch);
    for (;; ++touched) {
      if (int rc = inodes.next(); rc < 0) return rc;
      if (inodes.ino() == 0) break;
    }
    dense_ = touched * kItemsPerSearch >= batch.items().size();
    return 1;
  }

  std::mutex mutex_;
  int fd_;
  uint64_t tree_id_, line_;
  TreeKey from_{kFirstInode, 0, 0};
  uint64_t first_ = kFirstInode;
  size_t bytes_ = kFirstScanBytes;  // of the next chunk
  bool at_end_ = false, dense_ = true;
};

// Says whether numbers, which never decrease, are among the first ones of pairs.
class FirstNumbers {
 public:
  explicit FirstNumbers(const SortedPairs &pairs)
      : cursor_(pairs.begin()), more_(cursor_.next(&next_)) {}
  bool contain(uint64_t number) {
    while (more_ && next_.first < number) more_ = cursor_.next(&next_);
    return more_ && next_.first == number;
  }

 private:
  SortedPairs::Cursor cursor_;
  NumberPair next_;
  bool more_;
};

// Each has readers for three purposes, so that one does not drive out the neighbours that another will
// need.
struct Side {
  Side(int fd, uint64_t tree)
      : inodes(fd, tree), properties(fd, tree), entries(fd, tree, kDirectoryItems) {}
  void lookIn(const TreeWindow *window) {
    for (TreeReader *reader : {&inodes, &properties, &entries}) reader->lookIn(window);
  }
  TreeReader inodes, properties, entries;
};

// What all threads of a comparison know, and none changes.
struct Common {
  const TreeRoot &root;
  const uint64_t snapshot_id, line;
  const HiddenEntries hidden;
  int64_t line_time = INT64_MIN;                // seconds; when the transaction of the line was written
  bool snapshot_changed = false;                // the snapshot has a history of its own after the line
  std::unordered_set<uint64_t> not_shown = {};  // inodes in hidden folders, the folders included
};

// One thread's part of a comparison: decides about inodes, and keeps what it found. All calls that can
// fail return 0 or -errno.
class InodeVisitor {
 public:
  explicit InodeVisitor(const Common &common)
      : common_(common),
        active_(common.root.fd.get(), common.root.subvol_id),
        snapshot_(common.root.fd.get(), common.snapshot_id) {}

  int visitTouched(TouchedChunks *chunks);
  // In order, so that neighbours are read together.
  int visitThese(const uint64_t *begin, const uint64_t *end);
  int record(uint64_t ino, unsigned state);
  int addLeadsTo(uint64_t ino);

  Side &active() { return active_; }
  Side &snapshot() { return snapshot_; }

  // What was found.
  std::vector<uint64_t> pending, folders;  // inodes whose names came or went: directories apart
  PairSorter found, leads;
  PairSorter candidates;      // of an inode of either tree alone, the snapshot's first, of one name
  PairSorter doubts, needed;  // inodes that depend on twins; directories, and inodes to have one
  ChangeNotes changes;
  std::map<uint64_t, NameRef> homes;  // of nested subvolumes, by id, that the snapshot has elsewhere

 private:
  int visitChunk(const TouchedChunk &chunk);
  int readThen(uint64_t ino);
  bool untouched(const InodeItem &now, const InodeItem &then) const;
  int visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot);
  int compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot, unsigned *state);
  int noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot);
  bool pairEntries(uint64_t dir, const EntryDifference &entries);
  int visitChildren(Side *side, uint64_t dir);
  int addPending(const DirEntry &entry);
  void noteHome(uint64_t dir, const DirEntry &entry);

  const Common &common_;
  Side active_, snapshot_;
  TreeWindow then_;  // of the snapshot, beside a chunk that is whole
};

class TreeComparison {
 public:
  TreeComparison(const TreeRoot &root, uint64_t snapshot_id, uint64_t line, DifferenceSet *difference,
                 ChangeNotes *changes)
      : common_{root, snapshot_id, line, HiddenEntries(root, snapshot_id)},
        difference_(difference),
        changes_(changes) {
    for (size_t i = 0; i < usefulThreads(); ++i)
      visitors_.push_back(std::make_unique<InodeVisitor>(common_));
  }

  int compute();

 private:
  int findLineTime();
  int findHidden();
  int collectBelow(Side *side, uint64_t dir);
  int visitTouched();
  int visitAll(std::vector<uint64_t> InodeVisitor::*list);
  int visitPending();
  void collect();
  int findJunctions();
  int settle();
  int leaveOutTwins(const SortedPairs &found, const SortedPairs &leads, const SortedPairs &twins);
  int describeHalf(uint64_t ino, unsigned *state);
  int settleDoubtful(TwinSearch *twins);
  int climb();

  InodeVisitor &first() { return *visitors_.front(); }

  Common common_;
  std::vector<std::unique_ptr<InodeVisitor>> visitors_;  // one a thread; the first keeps what all found
  SortedPairs doubtful_, needs_;  // inodes that depend on twins; directories, and inodes to have one
  DifferenceSet *difference_;
  ChangeNotes *changes_;
};

int InodeVisitor::visitTouched(TouchedChunks *chunks) {
  TouchedChunk chunk;
  for (;;) {
    int rc = chunks->next(&chunk);
    if (rc <= 0) return rc;
    active_.lookIn(chunk.whole ? &chunk.window : nullptr);
    snapshot_.lookIn(chunk.whole ? &then_ : nullptr);
    rc = visitChunk(chunk);
    active_.lookIn(nullptr);
    snapshot_.lookIn(nullptr);
    if (rc < 0) return rc;
  }
}

// Reads the snapshot's items from inode `ino` on, where they are not there yet.
int InodeVisitor::readThen(uint64_t ino) {
  const TreeKey key{ino, 0, 0};
  return then_.holds(key) ? 0 : then_.read(common_.root.fd.get(), common_.snapshot_id, key, kScanBytes);
}

// Goes through the touched inodes of both trees as one.
int InodeVisitor::visitChunk(const TouchedChunk &chunk) {
  TouchedInBatch now(common_.line);
  now.begin(chunk.active());
  int rc = now.next();
  TouchedInodes then(common_.root.fd.get(), common_.snapshot_id, common_.line, chunk.first, chunk.last);
  if (rc == 0 && common_.snapshot_changed && chunk.first <= chunk.last) rc = then.next();
  while (rc == 0 && (now.ino() != 0 || then.ino() != 0)) {
    const bool from_active = now.ino() != 0 && (then.ino() == 0 || now.ino() <= then.ino());
    const bool from_snapshot = then.ino() != 0 && (now.ino() == 0 || then.ino() <= now.ino());
    const uint64_t ino = from_active ? now.ino() : then.ino();
    const InodeItem *active = from_active ? &now.item() : nullptr;
    const InodeItem *snapshot = from_snapshot ? &then.item() : nullptr;
    if (chunk.whole) rc = readThen(ino);
    if (rc < 0) return rc;
    InodeItem other;
    if (active == nullptr || snapshot == nullptr) {
      rc = readInode(active == nullptr ? active_.inodes : snapshot_.inodes, ino, &other);
      if (rc < 0) return rc;
      if (rc > 0) (active == nullptr ? active : snapshot) = &other;
    }
    rc = visit(ino, active, snapshot);
    if (rc == 0 && from_active) rc = now.next();
    if (rc == 0 && from_snapshot) rc = then.next();
  }
  return rc;
}

int InodeVisitor::visitThese(const uint64_t *begin, const uint64_t *end) {
  for (const uint64_t *ino = begin; ino != end; ++ino) {
    InodeItem active, snapshot;
    int found_active = readInode(active_.inodes, *ino, &active);
    int found_snapshot = found_active < 0 ? 0 : readInode(snapshot_.inodes, *ino, &snapshot);
    if (found_active < 0 || found_snapshot < 0) return std::min(found_active, found_snapshot);
    // Visited already.
    if (found_active > 0 && active.transid > common_.line) continue;
    if (found_snapshot > 0 && snapshot.transid > common_.line) continue;
    int rc =
        visit(*ino, found_active > 0 ? &active : nullptr, found_snapshot > 0 ? &snapshot : nullptr);
    if (rc < 0) return rc;
  }
  return 0;
}

// Whether an inode that was written after the line did not change (only its access time, say). An equal
// ctime alone does not prove it: two changes within one tick of the clock leave the same ctime, and the
// second may leave the sequence as it is. So it counts only where it is clearly before the line.
bool InodeVisitor::untouched(const InodeItem &now, const InodeItem &then) const {
  return now.ctime == then.ctime && now.sequence == then.sequence &&
         now.ctime.sec + kClockMargin < common_.line_time;
}

// Decides about one inode, and makes pending those whose names it shows to have come or gone. 0 or
// -errno.
int InodeVisitor::visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot) {
  // Unlinked but still open somewhere: gone.
  if (active != nullptr && active->nlink == 0) active = nullptr;
  if (snapshot != nullptr && snapshot->nlink == 0) snapshot = nullptr;
  if (active == nullptr && snapshot == nullptr) return 0;

  unsigned state =
      (active != nullptr ? KEST_DI_ACTIVE : 0) | (snapshot != nullptr ? KEST_DI_SNAPSHOT : 0);
  if (S_ISDIR((active != nullptr ? active : snapshot)->mode)) state |= KEST_DI_DIR;
  if (severalNames(active) || severalNames(snapshot)) state |= KEST_DI_LINKED;
  if (active != nullptr) state |= kindOf(*active);
  if (active != nullptr && snapshot != nullptr && sameIdentity(*active, *snapshot)) {
    if (untouched(*active, *snapshot)) return 0;
    int rc = compareSame(ino, *active, *snapshot, &state);
    if (rc < 0 || (state & (kDiffers | kDoubtful)) == 0) return rc;
    if ((state & kDoubtful) != 0) {
      doubts.add({ino, state & ~kDoubtful});
      return 0;
    }
    state &= ~kDiffers;
    if (rc = noteChange(ino, *active, *snapshot); rc < 0) return rc;
  } else {
    if (active != nullptr && snapshot != nullptr) state |= KEST_DI_REPLACED;
    int rc = 0;
    if (snapshot != nullptr && S_ISDIR(snapshot->mode)) rc = visitChildren(&snapshot_, ino);
    // Whatever only the fileset has was made after the line, and the search found it, unless the
    // snapshot has a history of its own in which it was deleted.
    if (rc == 0 && active != nullptr && S_ISDIR(active->mode) && common_.snapshot_changed)
      rc = visitChildren(&active_, ino);
    if (rc < 0) return rc;
  }
  return record(ino, state);
}

// Sets kDiffers where the inode, the same in both trees, differs in anything that can be restored, and
// kDoubtful where twins decide. 0 or -errno.
int InodeVisitor::compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot,
                              unsigned *state) {
  EntryDifference entries;
  int rc = 0;
  if (S_ISDIR(active.mode))
    rc = diffDirectories(active_.entries, snapshot_.entries, ino, active.size, common_.line,
                         common_.hidden, &entries);
  for (const DirEntry &entry : entries.snapshot) noteHome(ino, entry);
  for (const std::vector<DirEntry> *side : {&entries.snapshot, &entries.active})
    for (const DirEntry &entry : *side)
      if (rc == 0) rc = addPending(entry);
  if (rc < 0) return rc;
  if (!entries.active.empty() || !entries.snapshot.empty()) changes.addEntries(ino, entries);
  if (!pairEntries(ino, entries)) {
    *state |= KEST_DI_ENTRIES | kDiffers;
    return 0;
  }
  if (!entries.active.empty()) *state |= kDoubtful;
  unsigned unequal;
  InodeRecord now{.item = active, .names = {}, .xattrs = {}, .clone_xattrs = {}};
  InodeRecord then{.item = snapshot, .names = {}, .xattrs = {}, .clone_xattrs = {}};
  rc = compareInodes({active_.properties, ino}, &now, {snapshot_.properties, ino}, &then, &unequal);
  if (rc < 0 || unequal == 0) return rc;
  if ((unequal & kOther) != 0)
    *state |= kDiffers;
  else
    *state |= kDoubtful | kRelations;
  if (!S_ISREG(active.mode)) return 0;
  rc = hasXattr(active_.properties, ino, kCloneAttribute);
  if (rc == 0) rc = hasXattr(snapshot_.inodes, ino, kCloneAttribute);
  if (rc > 0) *state |= KEST_DI_CLONE;
  return std::min(rc, 0);
}

// Takes two files of one name, each of which only one of the directories has, for candidates. Whether
// all entries could be paired in this way; a nested fileset that only the snapshot has is passed over.
bool InodeVisitor::pairEntries(uint64_t dir, const EntryDifference &entries) {
  bool all = true;
  visitNamePairs(entries, [&](const DirEntry *now, const DirEntry *then) {
    if (then != nullptr && then->junction) then = nullptr;
    if (now == nullptr && then == nullptr) return;
    if (now == nullptr || then == nullptr || now->junction || now->type != then->type) {
      all = false;
      return;
    }
    candidates.add({then->target, now->target});
    needed.add({dir, then->target});
  });
  return all;
}

int InodeVisitor::noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot) {
  if (changes.full()) return 0;
  kest_change_t change;
  const int rc = describeChange(active_.properties, snapshot_.inodes, ino, active, snapshot, &change);
  if (rc == 0) changes.add(ino, change);
  return rc;
}

int InodeVisitor::visitChildren(Side *side, uint64_t dir) {
  DirEntryItem entry;
  for (uint64_t index = 0;; index = entry.index + 1) {
    int rc = nextEntry(side->entries, dir, index, &entry);
    if (rc <= 0) return rc;
    if (side == &snapshot_) noteHome(dir, entry);
    rc = addPending(entry);
    if (rc < 0 || entry.index == UINT64_MAX) return rc;
  }
}

// Directories wait until the end, because only they make others pending; the rest is visited as soon as
// there is much of it.
int InodeVisitor::addPending(const DirEntry &entry) {
  if (entry.junction) return 0;
  std::vector<uint64_t> &list = entry.type == DT_DIR ? folders : pending;
  list.push_back(entry.target);
  if (pending.size() < kPendingMost) return 0;
  std::vector<uint64_t> these;
  these.swap(pending);
  sortOnce(&these);
  return visitThese(these.data(), these.data() + these.size());
}

// An entry that only the snapshot has.
void InodeVisitor::noteHome(uint64_t dir, const DirEntry &entry) {
  if (entry.junction) homes.emplace(entry.target, NameRef{dir, entry.name});
}

int InodeVisitor::record(uint64_t ino, unsigned state) {
  // A file with several names may have one that is not hidden.
  if ((state & KEST_DI_LINKED) == 0 && common_.not_shown.contains(ino)) return 0;
  found.add({ino, state});
  return (state & KEST_DI_ACTIVE) != 0 ? addLeadsTo(ino) : 0;
}

int InodeVisitor::addLeadsTo(uint64_t ino) {
  int rc = visitNames(active_.properties, ino, [&](uint64_t parent, std::string_view) {
    if (parent != ino && !common_.not_shown.contains(parent)) leads.add({parent, ino});
  });
  return std::min(rc, 0);
}

int TreeComparison::compute() {
  // Delayed updates and unwritten data are in no tree yet.
  if (syncfs(common_.root.fd.get()) < 0) return -errno;
  int rc = findLineTime();
  if (rc == 0) rc = findHidden();
  if (rc == 0) rc = visitTouched();
  if (rc == 0) rc = visitPending();
  if (rc < 0) return rc;
  collect();
  rc = findJunctions();
  return rc == 0 ? settle() : rc;
}

// The subvolume that was created in the transaction of the line knows when that was. If it has been
// deleted since, every inode that was written is compared in full.
int TreeComparison::findLineTime() {
  SubvolumeTable table;
  int rc = table.load(common_.root.fd.get());
  if (rc < 0) return rc;
  for (const Subvolume &one : table.all()) {
    if (one.otransid != common_.line) continue;
    common_.line_time = one.created;
    // The directory that a snapshot is put into changes in the transaction of the line, but not in the
    // snapshot itself.
    if (one.parent_id == common_.root.subvol_id) first().folders.push_back(one.dir);
  }
  return 0;
}

// Folders that are hidden as a whole may be ordinary directories with ordinary files in them.
int TreeComparison::findHidden() {
  for (Side *side : {&first().active(), &first().snapshot()}) {
    for (const char *name : {".snapshots", ".unlinked", ".fset"}) {
      DirEntryItem entry;
      int rc = findEntry(side->inodes, kFirstInode, name, &entry);
      if (rc < 0) return rc;
      if (rc == 0 || entry.junction) continue;
      rc = common_.hidden.hidesName(kFirstInode, name, entry.type);
      if (rc < 0) return rc;
      if (rc == 0) continue;
      rc = collectBelow(side, entry.target);
      if (rc < 0) return rc;
    }
  }
  return 0;
}

int TreeComparison::collectBelow(Side *side, uint64_t dir) {
  // A tree's directories have one name each: nothing is met twice.
  std::vector<uint64_t> folders{dir};
  common_.not_shown.insert(dir);
  while (!folders.empty()) {
    uint64_t folder = folders.back();
    folders.pop_back();
    DirEntryItem entry;
    for (uint64_t index = 0;; index = entry.index + 1) {
      int rc = nextEntry(side->entries, folder, index, &entry);
      if (rc < 0) return rc;
      if (rc == 0) break;
      if (entry.junction) continue;
      common_.not_shown.insert(entry.target);
      if (entry.type == DT_DIR) folders.push_back(entry.target);
    }
  }
  return 0;
}

int TreeComparison::visitTouched() {
  TouchedInodes then(common_.root.fd.get(), common_.snapshot_id, common_.line, kFirstInode, kLastInode);
  if (int rc = then.next(); rc < 0) return rc;
  common_.snapshot_changed = then.ino() != 0;
  TouchedChunks chunks(common_.root.fd.get(), common_.root.subvol_id, common_.line);
  return inThreads(visitors_.size(), [&](size_t i) { return visitors_[i]->visitTouched(&chunks); });
}

// Visits what the visitors have in their lists, which are empty then, but for what this adds.
int TreeComparison::visitAll(std::vector<uint64_t> InodeVisitor::*list) {
  std::vector<uint64_t> all;
  for (auto &one : visitors_) {
    std::vector<uint64_t> &its = (*one).*list;
    all.insert(all.end(), its.begin(), its.end());
    its = {};
  }
  sortOnce(&all);
  const size_t share = all.size() / visitors_.size() + 1;
  return inThreads(all.size() < kWorthThreads ? 1 : visitors_.size(), [&](size_t i) {
    const size_t begin = all.size() < kWorthThreads ? 0 : std::min(i * share, all.size());
    const size_t end = all.size() < kWorthThreads ? all.size() : std::min(begin + share, all.size());
    return visitors_[i]->visitThese(all.data() + begin, all.data() + end);
  });
}

// Directories come first, because only they make others pending.
int TreeComparison::visitPending() {
  const auto any_folder = [](const auto &one) { return !one->folders.empty(); };
  int rc = 0;
  while (rc == 0 && std::any_of(visitors_.begin(), visitors_.end(), any_folder))
    rc = visitAll(&InodeVisitor::folders);
  return rc == 0 ? visitAll(&InodeVisitor::pending) : rc;
}

// Brings together what the threads found.
void TreeComparison::collect() {
  for (auto &one : visitors_) changes_->take(&one->changes);
  changes_->sort();
  for (size_t i = 1; i < visitors_.size(); ++i) {
    InodeVisitor &other = *visitors_[i];
    first().found.add(other.found.finish());
    first().leads.add(other.leads.finish());
    first().candidates.add(other.candidates.finish());
    first().doubts.add(other.doubts.finish());
    first().needed.add(other.needed.finish());
    first().homes.merge(other.homes);
  }
}

int TreeComparison::findJunctions() {
  std::vector<Subvolume> nested;
  std::vector<Junction> junctions;
  int rc = listNested(common_.root.fd.get(), common_.root.subvol_id, 0, &nested);
  if (rc < 0) return rc;
  for (const Subvolume &one : nested) {
    rc = common_.not_shown.contains(one.dir) ? 1
                                             : common_.hidden.hidesSubvolume(one.dir, one.name, one.id);
    if (rc < 0) return rc;
    if (rc > 0) continue;
    Junction junction{.dir = one.dir, .id = one.id, .name = one.name, .home_name = {}};
    if (const auto home = first().homes.find(one.id); home != first().homes.end()) {
      junction.home_dir = home->second.parent;
      junction.home_name = home->second.name;
    }
    junctions.push_back(std::move(junction));
    first().leads.add({one.dir, 0});
  }
  difference_->setJunctions(std::move(junctions));
  return 0;
}

// Finds the twins, and with them what the difference is.
int TreeComparison::settle() {
  const SortedPairs found = first().found.finish(), leads = first().leads.finish();
  doubtful_ = first().doubts.finish();
  needs_ = first().needed.finish();
  TwinSearch twins(common_.root, common_.snapshot_id, common_.hidden, found);
  int rc = twins.search(first().candidates.finish());
  if (rc < 0) return rc;
  do {
    rc = leaveOutTwins(found, leads, twins.twins());
    if (rc == 0) rc = settleDoubtful(&twins);
    if (rc < 0) return rc;
    difference_->setInodes(first().found.finish());
    rc = climb();
    if (rc == 0) rc = twins.dropThoseThatLead(*difference_);
  } while (rc > 0);
  if (rc == 0) difference_->setTwins(twins.twins());
  return rc;
}

int TreeComparison::leaveOutTwins(const SortedPairs &found, const SortedPairs &leads,
                                  const SortedPairs &twins) {
  if (twins.empty()) {
    first().found.add(SortedPairs(found));
    first().leads.add(SortedPairs(leads));
    return 0;
  }
  PairSorter turned;
  NumberPair pair;
  for (SortedPairs::Cursor cursor = twins.begin(); cursor.next(&pair);)
    turned.add({pair.second, pair.first});
  const SortedPairs by_active = turned.finish();
  FirstNumbers in_snapshot(twins), in_active(by_active);
  for (SortedPairs::Cursor cursor = found.begin(); cursor.next(&pair);) {
    auto state = static_cast<unsigned>(pair.second);
    if (in_snapshot.contain(pair.first)) state &= ~KEST_DI_SNAPSHOT;
    if (in_active.contain(pair.first)) state &= ~KEST_DI_ACTIVE;
    if ((state & kBoth) == 0) continue;
    if (state != pair.second)
      if (int rc = describeHalf(pair.first, &state); rc < 0) return rc;
    first().found.add({pair.first, state});
  }
  for (SortedPairs::Cursor cursor = leads.begin(); cursor.next(&pair);)
    if (by_active.secondOf(pair.second) == 0) first().leads.add(pair);
  return 0;
}

// Of two files of one number, one has a twin: says what the other one is.
int TreeComparison::describeHalf(uint64_t ino, unsigned *state) {
  InodeItem item;
  Side &side = (*state & KEST_DI_ACTIVE) != 0 ? first().active() : first().snapshot();
  int rc = readInode(side.inodes, ino, &item);
  if (rc <= 0) return rc < 0 ? rc : -EUCLEAN;
  *state &= kBoth;
  if (S_ISDIR(item.mode)) *state |= KEST_DI_DIR;
  if (severalNames(&item)) *state |= KEST_DI_LINKED;
  if ((*state & KEST_DI_ACTIVE) != 0) *state |= kindOf(item);
  return 0;
}

// Records those that differ although twins count as one.
int TreeComparison::settleDoubtful(TwinSearch *twins) {
  SortedPairs::Cursor need = needs_.begin();
  NumberPair needed, pair;
  bool more = need.next(&needed);
  for (SortedPairs::Cursor cursor = doubtful_.begin(); cursor.next(&pair);) {
    auto state = static_cast<unsigned>(pair.second);
    for (; more && needed.first <= pair.first; more = need.next(&needed))
      if (needed.first == pair.first && twins->twins().secondOf(needed.second) == 0)
        state |= KEST_DI_ENTRIES | kDiffers;
    int rc = (state & (kDiffers | kRelations)) == kRelations ? twins->sameRelations(pair.first) : 1;
    if (rc == 0) state |= kDiffers;
    if (rc >= 0 && (state & kDiffers) != 0)
      rc = first().record(pair.first, state & ~(kDiffers | kRelations));
    if (rc < 0) return rc;
  }
  return 0;
}

// Completes the leads: from every inode that was found, up to the root.
int TreeComparison::climb() {
  PairSorter all;
  std::vector<uint64_t> climbed;  // directories, by number
  for (;;) {
    SortedPairs latest = first().leads.finish();
    std::vector<uint64_t> step;
    NumberPair lead;
    for (SortedPairs::Cursor cursor = latest.begin(); cursor.next(&lead);) {
      const uint64_t dir = lead.first;
      // The directories of an inode of the difference are recorded already.
      if (dir == kFirstInode || (!step.empty() && step.back() == dir) ||
          difference_->find(dir).alive() || std::binary_search(climbed.begin(), climbed.end(), dir))
        continue;
      step.push_back(dir);
    }
    all.add(std::move(latest));
    if (step.empty()) break;
    for (uint64_t dir : step) {
      int rc = first().addLeadsTo(dir);
      if (rc < 0) return rc;
    }
    const auto before = static_cast<ptrdiff_t>(climbed.size());
    climbed.insert(climbed.end(), step.begin(), step.end());
    std::inplace_merge(climbed.begin(), climbed.begin() + before, climbed.end());
  }
  difference_->setLeads(all.finish());
  return 0;
}

}  // namespace

int compareTrees(const TreeRoot &root, uint64_t snapshot_id, uint64_t line, DifferenceSet *difference,
                 ChangeNotes *changes) {
  return TreeComparison(root, snapshot_id, line, difference, changes).compute();
}

}  // namespace kest
