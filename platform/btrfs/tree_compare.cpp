#include "btrfs/tree_compare.h"

#include <dirent.h>
#include <linux/btrfs_tree.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "btrfs/entry_diff.h"
#include "btrfs/inode_compare.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "btrfs/twin_search.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

constexpr size_t kScanBytes = 256 * 1024;

constexpr int64_t kClockMargin = 2;  // seconds

constexpr size_t kPendingMost = 64 * 1024;

constexpr unsigned kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;

// Of an inode of both trees, beside KEST_DI_* bits.
constexpr unsigned kDiffers = 1u << 16;    // it is in the difference
constexpr unsigned kDoubtful = 1u << 17;   // twins decide
constexpr unsigned kRelations = 1u << 18;  // whether names and clone attributes are equal

bool severalNames(const InodeItem *item) {
  return item != nullptr && !S_ISDIR(item->mode) && item->nlink > 1;
}

// The inodes of one tree that were written after the line, by number.
class TouchedInodes {
 public:
  TouchedInodes(int fd, uint64_t tree_id, uint64_t line) : fd_(fd), tree_id_(tree_id), line_(line) {}

  // 0 or -errno; afterwards ino() is the next one, or 0.
  int next() {
    for (;;) {
      for (; position_ < batch_.items().size(); ++position_) {
        const TreeItem &item = batch_.items()[position_];
        if (item.key.type != BTRFS_INODE_ITEM_KEY) continue;
        if (!decodeInode(item, &item_)) return -EUCLEAN;
        // A block that was written comes with all its inodes.
        if (item_.transid <= line_) continue;
        ino_ = item.key.objectid;
        ++position_;
        return 0;
      }
      if (!batch_.items().empty()) from_ = batch_.items().back().key.next();
      ino_ = 0;
      position_ = 0;
      int rc = batch_.read(fd_, tree_id_, from_, {kLastInode, 255, UINT64_MAX}, line_ + 1, kScanBytes);
      if (rc < 0 || batch_.items().empty()) return rc;
    }
  }
  uint64_t ino() const { return ino_; }
  const InodeItem &item() const { return item_; }

 private:
  int fd_;
  uint64_t tree_id_, line_;
  TreeBatch batch_;
  size_t position_ = 0;
  TreeKey from_{kFirstInode, 0, 0};
  uint64_t ino_ = 0;
  InodeItem item_;
};

// Says whether numbers, which never decrease, are among the first ones of pairs.
class FirstNumbers {
 public:
  explicit FirstNumbers(const SortedPairs &pairs) : cursor_(pairs.begin()), more_(cursor_.next(&next_)) {}
  bool contain(uint64_t number) {
    while (more_ && next_.first < number) more_ = cursor_.next(&next_);
    return more_ && next_.first == number;
  }

 private:
  SortedPairs::Cursor cursor_;
  NumberPair next_;
  bool more_;
};

class TreeComparison {
 public:
  TreeComparison(const TreeRoot &root, uint64_t snapshot_id, uint64_t line, DifferenceSet *difference,
                 ChangeNotes *changes)
      : root_(root),
        line_(line),
        hidden_(root, snapshot_id),
        active_(root.fd.get(), root.subvol_id),
        snapshot_(root.fd.get(), snapshot_id),
        difference_(difference),
        changes_(changes) {}

  int compute();

 private:
  // Each has readers for three purposes, so that one does not drive out the neighbours that another
  // will need.
  struct Side {
    Side(int fd, uint64_t tree)
        : inodes(fd, tree), properties(fd, tree), entries(fd, tree, kDirectoryItems) {}
    TreeReader inodes, properties, entries;
  };

  int findLineTime();
  int findHidden();
  int collectBelow(Side *side, uint64_t dir);
  int visitTouched();
  bool untouched(const InodeItem &now, const InodeItem &then) const;
  int visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot);
  int compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot, unsigned *state);
  int noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot);
  bool pairEntries(uint64_t dir, const EntryDifference &entries);
  int visitChildren(Side *side, uint64_t dir);
  int addPending(const DirEntry &entry);
  int visitThese(std::vector<uint64_t> *inodes);
  int visitPending();
  int record(uint64_t ino, unsigned state);
  int addLeadsTo(uint64_t ino);
  int findJunctions();
  int settle();
  int leaveOutTwins(const SortedPairs &found, const SortedPairs &leads, const SortedPairs &twins);
  int describeHalf(uint64_t ino, unsigned *state);
  int settleDoubtful(TwinSearch *twins);
  int climb();

  const TreeRoot &root_;
  uint64_t line_;
  int64_t line_time_ = INT64_MIN;  // seconds; when the transaction of the line was written
  HiddenEntries hidden_;
  Side active_, snapshot_;
  bool snapshot_changed_ = false;            // the snapshot has a history of its own after the line
  std::unordered_set<uint64_t> not_shown_;   // inodes in hidden folders, the folders included
  std::vector<uint64_t> pending_, folders_;  // inodes whose names came or went: directories apart
  PairSorter found_, leads_;
  PairSorter candidates_;         // of an inode of either tree alone, the snapshot's first, of one name
  PairSorter doubts_, needed_;    // become the next two
  SortedPairs doubtful_, needs_;  // inodes that depend on twins; directories, and inodes to have one
  DifferenceSet *difference_;
  ChangeNotes *changes_;
};

int TreeComparison::compute() {
  // Delayed updates and unwritten data are in no tree yet.
  if (syncfs(root_.fd.get()) < 0) return -errno;
  int rc = findLineTime();
  if (rc == 0) rc = findHidden();
  if (rc == 0) rc = visitTouched();
  if (rc == 0) rc = visitPending();
  if (rc < 0) return rc;
  changes_->sort();
  rc = findJunctions();
  return rc == 0 ? settle() : rc;
}

// The subvolume that was created in the transaction of the line knows when that was. If it has been
// deleted since, every inode that was written is compared in full.
int TreeComparison::findLineTime() {
  SubvolumeTable table;
  int rc = table.load(root_.fd.get());
  if (rc < 0) return rc;
  for (const Subvolume &one : table.all())
    if (one.otransid == line_) line_time_ = one.created;
  return 0;
}

// Folders that are hidden as a whole may be ordinary directories with ordinary files in them.
int TreeComparison::findHidden() {
  for (Side *side : {&active_, &snapshot_}) {
    for (const char *name : {".snapshots", ".unlinked"}) {
      if (!hidden_.hidesName(kFirstInode, name)) continue;
      DirEntryItem entry;
      int rc = findEntry(side->inodes, kFirstInode, name, &entry);
      if (rc < 0) return rc;
      if (rc == 0 || entry.junction) continue;
      rc = collectBelow(side, entry.target);
      if (rc < 0) return rc;
    }
  }
  return 0;
}

int TreeComparison::collectBelow(Side *side, uint64_t dir) {
  // A tree's directories have one name each: nothing is met twice.
  std::vector<uint64_t> folders{dir};
  not_shown_.insert(dir);
  while (!folders.empty()) {
    uint64_t folder = folders.back();
    folders.pop_back();
    DirEntryItem entry;
    for (uint64_t index = 0;; index = entry.index + 1) {
      int rc = nextEntry(side->entries, folder, index, &entry);
      if (rc < 0) return rc;
      if (rc == 0) break;
      if (entry.junction) continue;
      not_shown_.insert(entry.target);
      if (entry.type == DT_DIR) folders.push_back(entry.target);
    }
  }
  return 0;
}

// Whether an inode that was written after the line did not change (only its access time, say). An equal
// ctime alone does not prove it: two changes within one tick of the clock leave the same ctime, and the
// second may leave the sequence as it is. So it counts only where it is clearly before the line.
bool TreeComparison::untouched(const InodeItem &now, const InodeItem &then) const {
  return now.ctime == then.ctime && now.sequence == then.sequence &&
         now.ctime.sec + kClockMargin < line_time_;
}

// Goes through the touched inodes of both trees as one.
int TreeComparison::visitTouched() {
  TouchedInodes now(root_.fd.get(), active_.inodes.treeId(), line_);
  TouchedInodes then(root_.fd.get(), snapshot_.inodes.treeId(), line_);
  int rc = now.next();
  if (rc == 0) rc = then.next();
  snapshot_changed_ = then.ino() != 0;
  while (rc == 0 && (now.ino() != 0 || then.ino() != 0)) {
    const bool from_active = now.ino() != 0 && (then.ino() == 0 || now.ino() <= then.ino());
    const bool from_snapshot = then.ino() != 0 && (now.ino() == 0 || then.ino() <= now.ino());
    const uint64_t ino = from_active ? now.ino() : then.ino();
    const InodeItem *active = from_active ? &now.item() : nullptr;
    const InodeItem *snapshot = from_snapshot ? &then.item() : nullptr;
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

// Decides about one inode, and makes pending those whose names it shows to have come or gone. 0 or
// -errno.
int TreeComparison::visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot) {
  // Unlinked but still open somewhere: gone.
  if (active != nullptr && active->nlink == 0) active = nullptr;
  if (snapshot != nullptr && snapshot->nlink == 0) snapshot = nullptr;
  if (active == nullptr && snapshot == nullptr) return 0;

  unsigned state =
      (active != nullptr ? KEST_DI_ACTIVE : 0) | (snapshot != nullptr ? KEST_DI_SNAPSHOT : 0);
  if (S_ISDIR((active != nullptr ? active : snapshot)->mode)) state |= KEST_DI_DIR;
  if (severalNames(active) || severalNames(snapshot)) state |= KEST_DI_LINKED;
  if (active != nullptr && snapshot != nullptr && sameIdentity(*active, *snapshot)) {
    if (untouched(*active, *snapshot)) return 0;
    int rc = compareSame(ino, *active, *snapshot, &state);
    if (rc < 0 || (state & (kDiffers | kDoubtful)) == 0) return rc;
    if ((state & kDoubtful) != 0) {
      doubts_.add({ino, state & ~kDoubtful});
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
    if (rc == 0 && active != nullptr && S_ISDIR(active->mode) && snapshot_changed_)
      rc = visitChildren(&active_, ino);
    if (rc < 0) return rc;
  }
  return record(ino, state);
}

// Sets kDiffers where the inode, the same in both trees, differs in anything that can be restored, and
// kDoubtful where twins decide. 0 or -errno.
int TreeComparison::compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot,
                                unsigned *state) {
  EntryDifference entries;
  int rc = 0;
  if (S_ISDIR(active.mode))
    rc =
        diffDirectories(active_.entries, snapshot_.entries, ino, active.size, line_, hidden_, &entries);
  for (const std::vector<DirEntry> *side : {&entries.snapshot, &entries.active})
    for (const DirEntry &entry : *side)
      if (rc == 0) rc = addPending(entry);
  if (rc < 0) return rc;
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
bool TreeComparison::pairEntries(uint64_t dir, const EntryDifference &entries) {
  bool all = true;
  visitNamePairs(entries, [&](const DirEntry *now, const DirEntry *then) {
    if (then != nullptr && then->junction) then = nullptr;
    if (now == nullptr && then == nullptr) return;
    if (now == nullptr || then == nullptr || now->junction || now->type != then->type) {
      all = false;
      return;
    }
    candidates_.add({then->target, now->target});
    needed_.add({dir, then->target});
  });
  return all;
}

int TreeComparison::noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot) {
  if (changes_->full()) return 0;
  kest_change_t change;
  const int rc =
      describeChange(active_.properties, snapshot_.inodes, ino, active, snapshot, &change);
  if (rc == 0) changes_->add(ino, change);
  return rc;
}

int TreeComparison::visitChildren(Side *side, uint64_t dir) {
  DirEntryItem entry;
  for (uint64_t index = 0;; index = entry.index + 1) {
    int rc = nextEntry(side->entries, dir, index, &entry);
    if (rc <= 0) return rc;
    rc = addPending(entry);
    if (rc < 0 || entry.index == UINT64_MAX) return rc;
  }
}

// Directories wait until the end, because only they make others pending; the rest is visited as soon as
// there is much of it.
int TreeComparison::addPending(const DirEntry &entry) {
  if (entry.junction) return 0;
  std::vector<uint64_t> &list = entry.type == DT_DIR ? folders_ : pending_;
  list.push_back(entry.target);
  return pending_.size() < kPendingMost ? 0 : visitThese(&pending_);
}

// In order, so that neighbours are read together; empties the list.
int TreeComparison::visitThese(std::vector<uint64_t> *inodes) {
  std::vector<uint64_t> these;
  these.swap(*inodes);
  std::sort(these.begin(), these.end());
  these.erase(std::unique(these.begin(), these.end()), these.end());
  for (uint64_t ino : these) {
    InodeItem active, snapshot;
    int found_active = readInode(active_.inodes, ino, &active);
    int found_snapshot = found_active < 0 ? 0 : readInode(snapshot_.inodes, ino, &snapshot);
    if (found_active < 0 || found_snapshot < 0) return std::min(found_active, found_snapshot);
    // Visited already.
    if (found_active > 0 && active.transid > line_) continue;
    if (found_snapshot > 0 && snapshot.transid > line_) continue;
    int rc = visit(ino, found_active > 0 ? &active : nullptr, found_snapshot > 0 ? &snapshot : nullptr);
    if (rc < 0) return rc;
  }
  return 0;
}

int TreeComparison::visitPending() {
  int rc = 0;
  while (rc == 0 && !folders_.empty()) rc = visitThese(&folders_);
  if (rc == 0) rc = visitThese(&pending_);
  folders_ = {};
  pending_ = {};
  return rc;
}

int TreeComparison::record(uint64_t ino, unsigned state) {
  // A file with several names may have one that is not hidden.
  if ((state & KEST_DI_LINKED) == 0 && not_shown_.contains(ino)) return 0;
  found_.add({ino, state});
  return (state & KEST_DI_ACTIVE) != 0 ? addLeadsTo(ino) : 0;
}

int TreeComparison::addLeadsTo(uint64_t ino) {
  int rc = visitNames(active_.properties, ino, [&](uint64_t parent, std::string_view) {
    if (parent != ino && !not_shown_.contains(parent)) leads_.add({parent, ino});
  });
  return std::min(rc, 0);
}

int TreeComparison::findJunctions() {
  std::vector<Subvolume> nested;
  std::vector<Junction> junctions;
  int rc = listNested(root_.fd.get(), root_.subvol_id, 0, &nested);
  if (rc < 0) return rc;
  for (const Subvolume &one : nested) {
    rc = not_shown_.contains(one.dir) ? 1 : hidden_.hidesSubvolume(one.dir, one.name, one.id);
    if (rc < 0) return rc;
    if (rc > 0) continue;
    junctions.push_back({one.dir, one.id, one.name});
    leads_.add({one.dir, 0});
  }
  difference_->setJunctions(std::move(junctions));
  return 0;
}

// Finds the twins, and with them what the difference is.
int TreeComparison::settle() {
  const SortedPairs found = found_.finish(), leads = leads_.finish();
  doubtful_ = doubts_.finish();
  needs_ = needed_.finish();
  TwinSearch twins(root_, snapshot_.inodes.treeId(), hidden_, found);
  int rc = twins.search(candidates_.finish());
  if (rc < 0) return rc;
  do {
    rc = leaveOutTwins(found, leads, twins.twins());
    if (rc == 0) rc = settleDoubtful(&twins);
    if (rc < 0) return rc;
    difference_->setInodes(found_.finish());
    rc = climb();
    if (rc == 0) rc = twins.dropThoseThatLead(*difference_);
  } while (rc > 0);
  if (rc == 0) difference_->setTwins(twins.twins());
  return rc;
}

int TreeComparison::leaveOutTwins(const SortedPairs &found, const SortedPairs &leads,
                                  const SortedPairs &twins) {
  if (twins.empty()) {
    found_.add(SortedPairs(found));
    leads_.add(SortedPairs(leads));
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
    found_.add({pair.first, state});
  }
  for (SortedPairs::Cursor cursor = leads.begin(); cursor.next(&pair);)
    if (by_active.secondOf(pair.second) == 0) leads_.add(pair);
  return 0;
}

// Of two files of one number, one has a twin: says what the other one is.
int TreeComparison::describeHalf(uint64_t ino, unsigned *state) {
  InodeItem item;
  Side &side = (*state & KEST_DI_ACTIVE) != 0 ? active_ : snapshot_;
  int rc = readInode(side.inodes, ino, &item);
  if (rc <= 0) return rc < 0 ? rc : -EUCLEAN;
  *state &= kBoth;
  if (S_ISDIR(item.mode)) *state |= KEST_DI_DIR;
  if (severalNames(&item)) *state |= KEST_DI_LINKED;
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
    if (rc >= 0 && (state & kDiffers) != 0) rc = record(pair.first, state & ~(kDiffers | kRelations));
    if (rc < 0) return rc;
  }
  return 0;
}

// Completes the leads: from every inode that was found, up to the root.
int TreeComparison::climb() {
  PairSorter all;
  std::vector<uint64_t> climbed;  // directories, by number
  for (;;) {
    SortedPairs latest = leads_.finish();
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
      int rc = addLeadsTo(dir);
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
