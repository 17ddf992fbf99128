#include "btrfs/tree_compare.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/threads.h"
#include "btrfs/inode_visitor.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_sweep.h"
#include "btrfs/twin_search.h"

namespace kest {

namespace {

constexpr size_t kWorthThreads = 256;  // inodes

constexpr unsigned kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;

// Answers whether a number is the first one of a pair in a set. The numbers asked for must not
// decrease.
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

int TreeComparison::compute() {
  // Delayed inode updates and unwritten data appear in the trees only after a commit.
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

// Finds the time of the transaction of the line: the creation time of the subvolume that was created in
// it. If that subvolume has been deleted since, the time stays unknown, and every inode that was
// written is compared in full.
int TreeComparison::findLineTime() {
  SubvolumeTable table;
  int rc = table.load(common_.root.fd.get());
  if (rc < 0) return rc;
  for (const Subvolume &one : table.all()) {
    if (one.otransid != common_.line) continue;
    common_.line_time = one.created;
    // Creating a snapshot changes the directory that it is put into. That change belongs to the
    // transaction of the line, and only the fileset has it.
    if (one.parent_id == common_.root.subvol_id) first().folders.push_back(one.dir);
  }
  return 0;
}

// Collects the inodes in folders that are hidden as a whole. These may be ordinary directories with
// ordinary files.
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
  // A directory has one name, so this meets none twice.
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

// Visits the inodes in one list of all visitors. Afterwards the lists hold only what these visits
// added.
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

// Directories come first, because only they make other inodes pending.
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

// Finds the twins and removes them from the difference. That can make a directory equal, which can make
// others twins or equal in turn, so this repeats until nothing changes.
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

// Two files share a number, and one of them has a twin. Describes the other one.
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

// Records the doubtful inodes that differ even if twins count as the same inode.
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

// Completes the leads: every directory on the way from an inode of the difference up to the root.
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
