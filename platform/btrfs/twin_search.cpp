#include "btrfs/twin_search.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "base/threads.h"

namespace kest {

namespace {

constexpr uint32_t kInodeItems = 8;    // first_items for reading whole inodes
constexpr size_t kWorthThreads = 256;  // candidates
constexpr unsigned kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;

// Reads the entries of a directory in the order of their hashes, which is the same in every directory.
class HashedEntries {
 public:
  HashedEntries(TreeReader &tree, uint64_t dir) : tree_(tree), dir_(dir) {}

  // Advances to the next hash with an entry for which `shown`(entry) returns 1 (not 0 or -errno). 1; 0
  // at the end; or -errno.
  template <typename Shown>
  int next(Shown shown) {
    do {
      int rc = nextHash(tree_, dir_, from_, &entries_);
      if (rc <= 0) return rc;
      hash_ = entries_.front().index;
      from_ = hash_ + 1;
      for (auto entry = entries_.begin(); entry != entries_.end();) {
        rc = shown(*entry);
        if (rc < 0) return rc;
        entry = rc > 0 ? entry + 1 : entries_.erase(entry);
      }
    } while (entries_.empty());
    std::sort(entries_.begin(), entries_.end(),
              [](const DirEntryItem &a, const DirEntryItem &b) { return a.name < b.name; });
    return 1;
  }
  uint64_t hash() const { return hash_; }
  const std::vector<DirEntryItem> &entries() const { return entries_; }

 private:
  TreeReader &tree_;
  const uint64_t dir_;
  uint64_t from_ = 0, hash_ = 0;
  std::vector<DirEntryItem> entries_;
};

// Returns the clone attributes of a file; nothing if it is neither clone nor clone parent.
std::optional<CloneAttribute> cloneOf(const InodeRecord &record) {
  CloneAttribute clone;
  const auto take = [&](std::string_view name, auto *bytes) {
    for (const XattrItem &one : record.clone_xattrs) {
      if (one.name != name || one.value.size() < bytes->size()) continue;
      std::copy_n(one.value.begin(), bytes->size(), bytes->begin());
      return true;
    }
    return false;
  };
  if (!take(kCloneAttribute, &clone.clone)) return {};
  if (clone.namesSnapshot() && !take(kCloneSnapAttribute, &clone.clone_snap)) return {};
  return clone;
}

// Reads an inode completely. 1; 0: there is none; or -errno.
int readRecord(const InodeOfTree &inode, InodeRecord *record) {
  int rc = readInode(inode.tree, inode.ino, &record->item);
  if (rc <= 0) return rc;
  rc = readNamesAndXattrs(inode, record);
  return rc < 0 ? rc : 1;
}

}  // namespace

TwinSearch::TwinSearch(const TreeRoot &root, uint64_t snapshot_id, const HiddenEntries &hidden,
                       const SortedPairs &found)
    : root_(root),
      hidden_(hidden),
      found_(found),
      active_(root.fd.get(), root.subvol_id, kInodeItems),
      snapshot_(root.fd.get(), snapshot_id, kInodeItems),
      active_entries_(root.fd.get(), root.subvol_id, kDirectoryItems),
      snapshot_entries_(root.fd.get(), snapshot_id, kDirectoryItems) {}

// Returns true if the file of this number in one tree (KEST_DI_ACTIVE or KEST_DI_SNAPSHOT) is not in
// the other one.
bool TwinSearch::onlyIn(unsigned tree, uint64_t ino) const {
  const uint64_t state = found_.secondOf(ino);
  return (state & tree) != 0 && ((state & kBoth) != kBoth || (state & KEST_DI_REPLACED) != 0);
}

int TwinSearch::search(const SortedPairs &candidates) {
  const size_t threads = candidates.size() < kWorthThreads ? 1 : usefulThreads();
  std::vector<std::unique_ptr<TwinSearch>> others;
  for (size_t i = 1; i < threads; ++i)
    others.push_back(std::make_unique<TwinSearch>(root_, snapshot_.treeId(), hidden_, found_));
  const size_t share = candidates.size() / threads + 1;
  int rc = inThreads(threads, [&](size_t i) {
    TwinSearch &searcher = i == 0 ? *this : *others[i - 1];
    return searcher.searchSome(candidates, i * share, (i + 1) * share);
  });
  if (rc < 0) return rc;
  for (const auto &other : others) take(other.get());
  certain_ = certain_sorter_.finish();
  return settle();
}

int TwinSearch::searchSome(const SortedPairs &candidates, size_t begin, size_t end) {
  Family family;
  NumberPair top;
  SortedPairs::Cursor cursor = candidates.begin();
  for (size_t i = 0; i < end && cursor.next(&top); ++i) {
    if (i < begin || !onlyIn(KEST_DI_SNAPSHOT, top.first) || !onlyIn(KEST_DI_ACTIVE, top.second))
      continue;
    int rc = searchFamily(top, &family);
    if (rc < 0) return rc;
    if (rc > 0) keep(family);
  }
  return 0;
}

// Adds the families that another searcher has found.
void TwinSearch::take(TwinSearch *other) {
  certain_sorter_.add(other->certain_sorter_.finish());
  for (const Dependent &one : other->dependent_)
    dependent_.push_back(
        {pairs_.size() + one.pairs, open_.size() + one.open, survivors_.size() + one.survivors});
  pairs_.insert(pairs_.end(), other->pairs_.begin(), other->pairs_.end());
  open_.insert(open_.end(), other->open_.begin(), other->open_.end());
  survivors_.insert(survivors_.end(), other->survivors_.begin(), other->survivors_.end());
  other->dependent_ = {};
  other->pairs_ = other->open_ = {};
  other->survivors_ = {};
}

int TwinSearch::searchFamily(const NumberPair &top, Family *family) {
  family->pairs.assign(1, top);
  family->open.clear();
  family->survivors.clear();
  family->directories.clear();
  family->linked.clear();
  for (size_t i = 0; i < family->pairs.size(); ++i) {
    const NumberPair pair = family->pairs[i];
    int rc = comparePair(pair, family);
    if (rc <= 0) return rc;
  }
  // A file with several names was compared before all of its directories were known, so relate it
  // again.
  std::vector<NumberPair> open;
  for (const NumberPair &pair : family->open) {
    bool still_open = false;
    int rc = relate(pair, family, &still_open);
    if (rc <= 0) return rc;
    if (still_open) open.push_back(pair);
  }
  family->open = std::move(open);
  return 1;
}

int TwinSearch::comparePair(const NumberPair &pair, Family *family) {
  // A file with several names is compared once; its other names must lead to the same twin.
  if (const auto known = family->linked.find(pair.first); known != family->linked.end())
    return known->second == pair.second;
  InodeRecord now, then;
  int rc = readInode(snapshot_, pair.first, &then.item);
  if (rc > 0) rc = readInode(active_, pair.second, &now.item);
  if (rc <= 0) return rc;
  const bool is_directory = S_ISDIR(now.item.mode);
  if (!is_directory && now.item.nlink > 1) family->linked.emplace(pair.first, pair.second);
  unsigned unequal = 0;
  rc = compareInodes({active_, pair.second}, &now, {snapshot_, pair.first}, &then, &unequal);
  if (rc < 0 || (unequal & kOther) != 0) return rc;
  bool open = false;
  rc = relate(pair, now, then, family, &open);
  if (rc <= 0) return rc;
  if (open) family->open.push_back(pair);
  if (!is_directory) return 1;
  family->directories.emplace(pair.first, pair.second);
  return compareEntries(pair, family);
}

// Compares the entries of a pair of directories and adds the inodes that they lead to.
int TwinSearch::compareEntries(const NumberPair &pair, Family *family) {
  HashedEntries now(active_entries_, pair.second), then(snapshot_entries_, pair.first);
  const auto shownNow = [&](const DirEntryItem &entry) {
    const int hides =
        entry.junction ? hidden_.hidesSubvolume(pair.second, entry.name, entry.target) : 0;
    return hides < 0 ? hides : hides == 0;
  };
  // Ignore a nested fileset that is no longer in the fileset: no restore brings it back. Any other one
  // must be at its place, so a directory that contains one has no twin.
  const auto shownThen = [&](const DirEntryItem &entry) {
    uint64_t dir;
    std::string name;
    return entry.junction ? findRootRef(root_.fd.get(), root_.subvol_id, entry.target, &dir, &name) : 1;
  };
  const auto first_child = static_cast<ptrdiff_t>(family->pairs.size());
  for (;;) {
    const int more_now = now.next(shownNow);
    if (more_now < 0) return more_now;
    const int more_then = then.next(shownThen);
    if (more_then < 0) return more_then;
    // Both sides come in the order of hashes, so a name that only one of them has shows here.
    if (more_now != more_then) return 0;
    if (more_now == 0) break;
    if (now.hash() != then.hash() || now.entries().size() != then.entries().size()) return 0;
    for (size_t i = 0; i < now.entries().size(); ++i) {
      int rc = addChild(now.entries()[i], then.entries()[i], family);
      if (rc <= 0) return rc;
    }
  }
  // Sorted, so that neighbouring inodes are read together.
  std::sort(family->pairs.begin() + first_child, family->pairs.end());
  return 1;
}

int TwinSearch::addChild(const DirEntryItem &now, const DirEntryItem &then, Family *family) {
  if (now.name != then.name || now.junction || now.type != then.type) return 0;
  const bool deleted = onlyIn(KEST_DI_SNAPSHOT, then.target);
  if (deleted != onlyIn(KEST_DI_ACTIVE, now.target)) return 0;
  if (deleted) {
    family->pairs.push_back({then.target, now.target});
    return 1;
  }
  if (now.target != then.target) return 0;
  family->survivors.push_back(now.target);
  return 1;
}

// Finds the present number of an inode of the snapshot: its own or that of its twin. Returns false if
// there is neither.
bool TwinSearch::twinOf(uint64_t then, const Family *family, uint64_t *now) const {
  *now = then;
  if (!onlyIn(KEST_DI_SNAPSHOT, then)) return true;
  if (family != nullptr) {
    const auto found = family->directories.find(then);
    if (found != family->directories.end()) {
      *now = found->second;
      return true;
    }
  }
  *now = twins_.secondOf(then);
  return *now != 0;
}

// Returns 1 if names and clone relation of the pair are equal as far as that is known. *open is set if
// they depend on inodes that may turn out to be twins.
int TwinSearch::relate(const NumberPair &pair, const Family *family, bool *open) {
  InodeRecord now, then;
  int rc = readRecord({active_, pair.second}, &now);
  if (rc > 0) rc = readRecord({snapshot_, pair.first}, &then);
  return rc <= 0 ? rc : relate(pair, now, then, family, open);
}

int TwinSearch::relate(const NumberPair &pair, const InodeRecord &now, const InodeRecord &then,
                       const Family *family, bool *open) {
  if (!sameNames(now.names, then.names, family, open)) return 0;
  if (now.clone_xattrs.empty() && then.clone_xattrs.empty()) return 1;
  std::optional<CloneAttribute> clone_now = cloneOf(now), clone_then = cloneOf(then);
  if (onlyIn(KEST_DI_SNAPSHOT, pair.first))
    return clone_then ? relateMadeAgain(clone_now ? &*clone_now : nullptr, *clone_then, family, open)
                      : !clone_now;
  // A survivor keeps its attributes, except for the number of a parent that was made again.
  if (now.clone_xattrs == then.clone_xattrs) return 1;
  if (!clone_now || !clone_then || clone_now->namesSnapshot() || clone_then->namesSnapshot()) return 0;
  uint64_t parent;
  if (!twinOf(clone_then->parent(), family, &parent)) {
    *open = true;
    return 1;
  }
  clone_then->setParent(parent);
  return clone_now->clone == clone_then->clone;
}

bool TwinSearch::sameNames(const std::vector<NameRef> &now, const std::vector<NameRef> &then,
                           const Family *family, bool *open) const {
  if (now.size() != then.size()) return false;
  std::vector<NameRef> known;
  for (const NameRef &name : then) {
    uint64_t parent;
    if (twinOf(name.parent, family, &parent))
      known.push_back({parent, name.name});
    else
      *open = true;
  }
  std::sort(known.begin(), known.end());
  return std::includes(now.begin(), now.end(), known.begin(), known.end());
}

// `now` is NULL if the fileset's file is neither clone nor clone parent.
int TwinSearch::relateMadeAgain(const CloneAttribute *now, const CloneAttribute &then,
                                const Family *family, bool *open) {
  int is_clone = then.depth() > 0 ? parentIsThere(then) : 0;
  if (is_clone < 0) return is_clone;
  // A restore makes a clone whose parent is missing from its data.
  if (is_clone == 0 && !then.isParent()) return now == nullptr;
  if (now == nullptr || now->isParent() != then.isParent()) return 0;
  if (is_clone == 0) return now->depth() == 0;
  if (now->namesSnapshot() != then.namesSnapshot()) return 0;
  if (then.namesSnapshot())
    return now->parent() == then.parent() && now->clone_snap == then.clone_snap &&
           now->depth() == then.depth();
  uint64_t parent;
  if (!twinOf(then.parent(), family, &parent)) {
    *open = true;
    return 1;
  }
  if (now->parent() != parent || now->depth() == 0) return 0;
  // If an ancestor was made from its data, depths are counted from that ancestor.
  return isParentOfDepth(active_, parent, now->depth() - 1);
}

int TwinSearch::isParentOfDepth(TreeReader &tree, uint64_t ino, unsigned depth) {
  InodeRecord record;
  int rc = readRecord({tree, ino}, &record);
  if (rc <= 0) return rc;
  const std::optional<CloneAttribute> parent = cloneOf(record);
  return parent && parent->isParent() && parent->depth() == depth;
}

// Whether the snapshot's clone has its parent, in whichever tree the parent is.
int TwinSearch::parentIsThere(const CloneAttribute &clone) {
  if (!clone.namesSnapshot()) return isParentOfDepth(snapshot_, clone.parent(), clone.depth() - 1);
  TreeReader other(root_.fd.get(), clone.snapshot());
  int rc = isParentOfDepth(other, clone.parent(), clone.depth() - 1);
  return rc == -ENOENT ? 0 : rc;
}

void TwinSearch::keep(const Family &family) {
  // A family that depends on nothing else is certain and needs no further check.
  if (family.open.empty() && family.survivors.empty()) {
    for (const NumberPair &pair : family.pairs) certain_sorter_.add(pair);
    return;
  }
  dependent_.push_back({pairs_.size(), open_.size(), survivors_.size()});
  pairs_.insert(pairs_.end(), family.pairs.begin(), family.pairs.end());
  open_.insert(open_.end(), family.open.begin(), family.open.end());
  survivors_.insert(survivors_.end(), family.survivors.begin(), family.survivors.end());
}

namespace {

// Returns the part of a dependent family in a list of all families: from `begin` to the next family's
// begin.
template <typename T>
std::span<const T> partOf(const std::vector<T> &list, size_t begin, size_t end) {
  return std::span<const T>(list).subspan(begin, end - begin);
}

}  // namespace

// Assumes that all families are twins, then drops those whose relations contradict that, until none
// does.
int TwinSearch::settle() {
  for (;;) {
    const auto end = [&](size_t i) {
      return i + 1 < dependent_.size() ? dependent_[i + 1]
                                       : Dependent{pairs_.size(), open_.size(), survivors_.size()};
    };
    PairSorter all;
    all.add(SortedPairs(certain_));
    for (size_t i = 0; i < dependent_.size(); ++i)
      if (!dependent_[i].dropped)
        for (const NumberPair &pair : partOf(pairs_, dependent_[i].pairs, end(i).pairs)) all.add(pair);
    twins_ = all.finish();
    bool dropped = false;
    for (size_t i = 0; i < dependent_.size(); ++i) {
      Dependent &one = dependent_[i];
      if (one.dropped) continue;
      for (const NumberPair &pair : partOf(open_, one.open, end(i).open)) {
        bool open = false;
        int rc = relate(pair, nullptr, &open);
        if (rc < 0) return rc;
        if (rc > 0 && !open) continue;
        one.dropped = dropped = true;
        break;
      }
    }
    if (!dropped) return 0;
  }
}

int TwinSearch::sameRelations(uint64_t ino) {
  bool open = false;
  int rc = relate({ino, ino}, nullptr, &open);
  return rc > 0 ? !open : rc;
}

int TwinSearch::dropThoseThatLead(const DifferenceSet &difference) {
  bool dropped = false;
  for (size_t i = 0; i < dependent_.size(); ++i) {
    Dependent &one = dependent_[i];
    if (one.dropped) continue;
    const size_t end = i + 1 < dependent_.size() ? dependent_[i + 1].survivors : survivors_.size();
    const std::span<const uint64_t> survivors = partOf(survivors_, one.survivors, end);
    one.dropped = std::any_of(survivors.begin(), survivors.end(), [&](uint64_t ino) {
      return difference.find(ino).state != 0 || difference.leads(ino);
    });
    dropped = dropped || one.dropped;
  }
  if (!dropped) return 0;
  int rc = settle();
  return rc < 0 ? rc : 1;
}

}  // namespace kest
