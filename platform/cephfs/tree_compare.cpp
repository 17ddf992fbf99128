#include "cephfs/tree_compare.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "cephfs/inode_compare.h"
#include "cephfs/names.h"
#include "cephfs/run_lock.h"
#include "cephfs/tree_comparison.h"
#include "cephfs/twin_search.h"

namespace kest {

namespace {

// The threads wait for the servers most of the time, so their number does not follow that of the
// processors. Those of some five processes keep one metadata server busy.
constexpr int kThreads = 4;
// Directories that a group should have at least, so that groups take about the same time.
constexpr size_t kGroupLeast = 4;

// What one entry says about its inode. The bits of all entries of an inode are combined at the end, so
// that the names of a hard-linked file can be met in any order.
constexpr uint64_t kOnlyNow = 1;   // a name that only the fileset has
constexpr uint64_t kOnlyThen = 2;  // a name that only the snapshot has
constexpr uint64_t kInBoth = 4;    // a name that means it in both
constexpr uint64_t kChanged = 8;   // its attributes or data differ
constexpr uint64_t kSeveral = 16;  // it has several names in either tree

bool severalNames(const CephStat &st) {
  return !S_ISDIR(st.stx_mode) && st.stx_nlink > 1;
}

bool byName(const CephEntry &a, const CephEntry &b) {
  return a.name < b.name;
}

}  // namespace

void TreeComparison::push(Folder folder) {
  std::lock_guard lock(mutex_);
  folders_.push_back(std::move(folder));
  changed_.notify_one();
}

void TreeComparison::addNews(uint64_t ino, uint64_t news) {
  std::lock_guard lock(mutex_);
  news_.add({ino, news});
}

void TreeComparison::addParent(uint64_t dir, uint64_t parent) {
  std::lock_guard lock(mutex_);
  parents_.add({dir, parent});
}

void TreeComparison::addLead(uint64_t dir, const CephEntry &entry) {
  std::lock_guard lock(mutex_);
  leads_.add({dir, entry.st.stx_ino});
  names_->add(dir, toEntry(entry));
}

void TreeComparison::noteEntries(uint64_t dir, const EntryDifference &changed) {
  std::lock_guard lock(mutex_);
  notes_->addEntries(dir, changed);
}

void TreeComparison::addCandidates(uint64_t dir, std::vector<TwinCandidate> candidates,
                                   const Changed &changed) {
  std::lock_guard lock(mutex_);
  // A pair that is not examined counts as different, and the restore makes the file again.
  if (candidates_.size() + candidates.size() > kMostCandidates) return;
  std::move(candidates.begin(), candidates.end(), std::back_inserter(candidates_));
  changed_dirs_[dir] = changed;
}

void TreeComparison::recordFolder(uint64_t ino, unsigned state) {
  std::lock_guard lock(mutex_);
  found_.add({ino, state | KEST_DI_DIR});
}

// A value that is no number of seconds counts as none.
void TreeComparison::readMargin() {
  const char *text = getenv("FSETRESTORE_RCTIME_MARGIN");
  if (text == nullptr) return;
  int64_t margin = 0;
  const char *end = text + strlen(text);
  const auto [stop, error] = std::from_chars(text, end, margin);
  if (error != std::errc() || stop != end || margin < 0) return;
  const int64_t taken = timeOfSnapshot(snapshot_.inode);
  if (taken > margin) unchanged_until_ = taken - margin;
}

// Sets *passed if the largest change time below the active directory is older than the snapshot by more
// than the margin. 0 or -errno.
int TreeComparison::maybePassOver(const Folder &folder, bool *passed) {
  *passed = false;
  if (unchanged_until_ == 0 || folder.changed || folder.ino == active_.ino) return 0;
  InodeRef dir;
  CephStat st;
  std::string text;
  int rc = active_.client->byNumber(folder.ino, kActive, &dir, &st);
  if (rc == 0) rc = active_.client->readXattr(dir, "ceph.dir.rctime", &text);
  if (rc == -ESTALE || rc == -ENOENT || rc == -ENODATA) return 0;
  if (rc < 0) return rc;
  int64_t changed = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), changed);
  *passed = error == std::errc() && stop != text.data() && changed < unchanged_until_;
  if (!*passed) return 0;
  std::lock_guard lock(mutex_);
  ++passed_over_;
  return 0;
}

int TreeComparison::compute() {
  readMargin();
  CephStat now, then;
  int rc = active_.client->readStat(active_.inode, &now);
  if (rc == 0) rc = snapshot_.client->readStat(snapshot_.inode, &then);
  int same = 1;
  if (rc == 0 && !sameListing(now, then))
    same = sameProperties(active_, snapshot_, active_.ino, now, then, snapshot_.inode, "");
  if (rc == 0 && same < 0) rc = same;
  if (rc < 0) return rc;
  push({Folder::kPair, active_.ino, same == 0, snapshot_.inode.another(), ""});
  rc = workAndShare();
  if (rc < 0) return rc;
  // Every directory of the snapshot has been compared by now, so the remaining directories are new,
  // with everything in them that was not moved there.
  descending_ = true;
  for (uint64_t ino : std::exchange(unmatched_, {}))
    if (!moved_.contains(ino)) folders_.push_back({Folder::kNew, ino, true, {}, ""});
  rc = workAndShare();
  if (rc < 0) return rc;
  recordFiles();
  difference_->setInodes(found_.finish());
  const SortedPairs leads = leads_.finish();
  rc = settleTwins(leads);
  climb(leads);
  return rc;
}

// Returns true if this process should leave the remaining directories to others.
bool TreeComparison::stops() const {
  return visited_ >= most_visited_ ||
         (division_ != nullptr && !alone_ && folders_.size() >= kGroupLeast * division_->groups);
}

int TreeComparison::workAndShare() {
  int rc = workThrough();
  while (rc == 0 && !folders_.empty()) {
    rc = shareOut();
    if (rc == 0) rc = workThrough();
  }
  return rc;
}

int TreeComparison::workThrough() {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([this] { work(); });
  for (std::thread &one : threads) one.join();
  return failure_;
}

void TreeComparison::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return !folders_.empty() || busy_ == 0 || failure_ != 0 || stops(); });
    if (folders_.empty() || failure_ != 0 || stops()) break;
    // Depth first keeps the list short. But a process that shares the work out needs many directories
    // soon, so it goes breadth first.
    int rc;
    {
      const bool breadth = division_ != nullptr && !alone_;
      Folder folder = std::move(breadth ? folders_.front() : folders_.back());
      if (breadth)
        folders_.pop_front();
      else
        folders_.pop_back();
      ++busy_;
      ++visited_;
      lock.unlock();
      try {
        // Another process found this directory at a path that was too long to be passed on.
        const bool lost = folder.path.empty() && folder.kind != Folder::kNew && !folder.then;
        rc = lost                  ? -ENAMETOOLONG
             : folder.path.empty() ? 0
                                   : openThen(folder.path, folder.ino, &folder.then);
        if (rc == 0) rc = visit(folder);
      } catch (const std::bad_alloc &) {
        rc = -ENOMEM;
      }
    }
    lock.lock();
    --busy_;
    if (rc < 0 && failure_ == 0) failure_ = rc;
    if (failure_ != 0 || (busy_ == 0 && folders_.empty())) changed_.notify_all();
  }
  changed_.notify_all();
}

// Looks up a directory of the snapshot by its path, and notes the places of all directories on it.
int TreeComparison::openThen(const std::string &path, uint64_t ino, InodeRef *dir) {
  InodeRef at = snapshot_.inode.another();
  uint64_t parent = snapshot_.ino;
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    InodeRef next;
    CephStat st;
    if (!at) return -ENOENT;
    if (int rc = snapshot_.client->lookUp(at, name, &next, &st); rc < 0) return rc;
    snapshot_.client->notePlace(snapshot_.snapid, st.stx_ino, {parent, name});
    parent = st.stx_ino;
    at = std::move(next);
    begin = end + 1;
  }
  if (parent != ino) return -EBADMSG;  // the path is not whole
  *dir = std::move(at);
  return 0;
}

int TreeComparison::listActive(uint64_t ino, std::vector<CephEntry> *entries) {
  InodeRef dir;
  CephStat st;
  int rc = active_.client->byNumber(ino, kActive, &dir, &st);
  if (rc == 0) rc = active_.client->list(dir, entries);
  // A directory that goes away meanwhile has no entries.
  return rc == -ESTALE || rc == -ENOENT ? 0 : rc;
}

int TreeComparison::visit(const Folder &folder) {
  if (folder.kind == Folder::kPair) return visitPair(folder);
  std::vector<CephEntry> entries;
  const bool deleted = folder.kind == Folder::kDeleted;
  int rc =
      deleted ? snapshot_.client->list(folder.then, &entries, true) : listActive(folder.ino, &entries);
  recordFolder(folder.ino, deleted ? KEST_DI_SNAPSHOT : KEST_DI_ACTIVE);
  for (CephEntry &one : entries)
    if (rc == 0) rc = deleted ? onlyThen(one) : onlyNow(folder.ino, one);
  return rc;
}

int TreeComparison::visitPair(const Folder &folder) {
  bool passed;
  if (int looked = maybePassOver(folder, &passed); looked < 0 || passed) return looked;
  std::vector<CephEntry> now, then;
  // List the active directory first: the servers then call in the changes that clients have not written
  // back, which makes the snapshot complete as well.
  int rc = listActive(folder.ino, &now);
  if (rc == 0) rc = snapshot_.client->list(folder.then, &then, true);
  if (rc < 0) return rc;
  leaveOutLockFile(active_, folder.ino, &now);
  leaveOutLockFile(snapshot_, folder.ino, &then);
  std::sort(now.begin(), now.end(), byName);
  std::sort(then.begin(), then.end(), byName);
  EntryDifference changed;
  std::vector<TwinCandidate> may_be_twins;
  const auto onlyInActive = [&](CephEntry &entry) {
    changed.active.push_back(toEntry(entry));
    return onlyNow(folder.ino, entry);
  };
  const auto onlyInSnapshot = [&](CephEntry &entry) {
    changed.snapshot.push_back(toEntry(entry));
    return onlyThen(entry);
  };
  auto a = now.begin(), b = then.begin();
  while (rc == 0 && (a != now.end() || b != then.end())) {
    if (b == then.end() || (a != now.end() && a->name < b->name)) {
      rc = onlyInActive(*a++);
    } else if (a == now.end() || b->name < a->name) {
      rc = onlyInSnapshot(*b++);
    } else if (a->st.stx_ino == b->st.stx_ino) {
      rc = compareEntry(folder, *a++, *b++);
    } else {
      if (sameTraits(a->st, b->st)) may_be_twins.push_back({folder.ino, a->name});
      rc = onlyInActive(*a++);
      if (rc == 0) rc = onlyInSnapshot(*b++);
    }
  }
  const bool entries_differ = !changed.active.empty() || !changed.snapshot.empty();
  if (entries_differ) noteEntries(folder.ino, changed);
  if (!may_be_twins.empty())
    addCandidates(folder.ino, std::move(may_be_twins),
                  {changed.active.size() + changed.snapshot.size(), folder.changed});
  if (folder.changed || entries_differ)
    recordFolder(folder.ino,
                 KEST_DI_ACTIVE | KEST_DI_SNAPSHOT | (entries_differ ? KEST_DI_ENTRIES : 0));
  return rc;
}

// Compares an entry whose name leads to the same inode in both trees.
int TreeComparison::compareEntry(const Folder &folder, const CephEntry &now, CephEntry &then) {
  const uint64_t ino = now.st.stx_ino, dir = folder.ino;
  int same = 1;
  if (!sameListing(now.st, then.st)) {
    same = sameProperties(active_, snapshot_, ino, now.st, then.st, folder.then, then.name);
    if (same < 0) return same;
  }
  if (S_ISDIR(now.st.stx_mode)) {
    addParent(ino, dir);
    push({Folder::kPair, ino, same == 0, std::move(then.dir), ""});
    return 0;
  }
  const bool several = severalNames(now.st) || severalNames(then.st);
  if (same == 0 || several)
    addNews(ino, kInBoth | (same == 0 ? kChanged : 0) | (several ? kSeveral : 0));
  if (same == 0 || several) addLead(dir, now);
  return 0;
}

int TreeComparison::onlyNow(uint64_t dir, const CephEntry &entry) {
  const uint64_t ino = entry.st.stx_ino;
  if (!S_ISDIR(entry.st.stx_mode)) {
    addNews(ino, kOnlyNow | (severalNames(entry.st) ? kSeveral : 0));
    addLead(dir, entry);
    return 0;
  }
  addParent(ino, dir);
  std::lock_guard lock(mutex_);
  names_->add(dir, toEntry(entry));
  if (!descending_ || moved_.contains(ino)) {
    unmatched_.push_back(ino);
  } else {
    folders_.push_back({Folder::kNew, ino, true, {}, ""});
    changed_.notify_one();
  }
  return 0;
}

int TreeComparison::onlyThen(CephEntry &entry) {
  const uint64_t ino = entry.st.stx_ino;
  if (!S_ISDIR(entry.st.stx_mode)) {
    addNews(ino, kOnlyThen | (severalNames(entry.st) ? kSeveral : 0));
    return 0;
  }
  const int lives = liesInFileset(active_, ino);
  if (lives < 0) return lives;
  if (lives == 0) {
    push({Folder::kDeleted, ino, true, std::move(entry.dir), ""});
    return 0;
  }
  {
    std::lock_guard lock(mutex_);
    moved_.insert(ino);
  }
  push({Folder::kPair, ino, true, std::move(entry.dir), ""});
  return 0;
}

void TreeComparison::recordFiles() {
  const SortedPairs all = news_.finish();
  SortedPairs::Cursor cursor = all.begin();
  NumberPair one;
  bool more = cursor.next(&one);
  while (more) {
    const uint64_t ino = one.first;
    uint64_t news = 0;
    for (; more && one.first == ino; more = cursor.next(&one)) news |= one.second;
    if ((news & (kOnlyNow | kOnlyThen | kChanged)) == 0) continue;
    unsigned state = (news & kSeveral) != 0 ? KEST_DI_LINKED : 0;
    if ((news & (kOnlyNow | kInBoth)) != 0) state |= KEST_DI_ACTIVE;
    if ((news & (kOnlyThen | kInBoth)) != 0) state |= KEST_DI_SNAPSHOT;
    found_.add({ino, state});
  }
}

// A file of both trees can have some of its names in a directory that was made again, and others in
// directories of both trees, which have leads to it. The twin search has met only the former.
int TreeComparison::meetSharedNames(const SortedPairs &leads, TwinSearch *search) {
  const std::unordered_set<uint64_t> inodes = search->withUnmetNames();
  if (inodes.empty()) return 0;
  uint64_t dir = 0;
  NumberPair lead;
  for (SortedPairs::Cursor cursor = leads.begin(); cursor.next(&lead);) {
    if (lead.first == dir || !inodes.contains(lead.second)) continue;
    dir = lead.first;
    std::vector<DirEntry> listed;
    const std::vector<DirEntry> *names = names_->whole() ? names_->of(dir) : nullptr;
    if (names == nullptr) {
      std::vector<CephEntry> entries;
      if (int rc = listActive(dir, &entries); rc < 0) return rc;
      for (const CephEntry &one : entries) listed.push_back(toEntry(one));
      names = &listed;
    }
    if (int rc = search->meetNames(dir, *names, inodes); rc < 0) return rc;
  }
  return 0;
}

// Removes twins from the difference, and directories that differ only by twins.
int TreeComparison::settleTwins(const SortedPairs &leads) {
  if (candidates_.empty()) return 0;
  TwinSearch search(active_, snapshot_, *difference_);
  if (int rc = search.search(candidates_); rc < 0) return rc;
  if (int rc = meetSharedNames(leads, &search); rc < 0) return rc;
  search.conclude();
  PairSorter left, twins;
  for (DiffInode one = difference_->firstFrom(0); one.ino != 0;
       one = difference_->firstFrom(one.ino + 1)) {
    if (search.settled().contains(one.ino)) continue;
    if (const auto names = search.names().find(one.ino); names != search.names().end()) {
      const Changed &changed = changed_dirs_[one.ino];
      if (changed.entries == 2 * names->second) {
        if (!changed.itself) continue;
        one.state &= ~KEST_DI_ENTRIES;
      }
    }
    left.add({one.ino, one.state});
  }
  for (const auto &[then, now] : search.twins()) twins.add({then, now});
  difference_->setInodes(left.finish());
  difference_->setTwins(twins.finish());
  return 0;
}

// Keeps the leads to inodes of the difference, and adds leads to its directories and to all directories
// above these, up to the root.
void TreeComparison::climb(const SortedPairs &files) {
  const SortedPairs parents = parents_.finish();
  PairSorter all;
  std::vector<uint64_t> step;
  std::unordered_set<uint64_t> climbed;
  NumberPair pair;
  for (SortedPairs::Cursor cursor = files.begin(); cursor.next(&pair);) {
    if (!difference_->find(pair.second).alive()) continue;
    all.add(pair);
    if (step.empty() || step.back() != pair.first) step.push_back(pair.first);
  }
  for (SortedPairs::Cursor cursor = parents.begin(); cursor.next(&pair);)
    if (difference_->find(pair.first).alive()) step.push_back(pair.first);
  while (!step.empty()) {
    const uint64_t dir = step.back();
    step.pop_back();
    if (dir == active_.ino || !climbed.insert(dir).second) continue;
    if (!parents.from({dir, 0}).next(&pair) || pair.first != dir) continue;
    all.add({pair.second, dir});
    step.push_back(pair.second);
  }
  difference_->setLeads(all.finish());
}

int compareTrees(const CephRoot &active, const CephRoot &snapshot, DifferenceSet *difference,
                 ChangeNotes *notes, LeadNames *names, uint64_t *passed_over,
                 const kest_division_t *division) {
  TreeComparison comparison(active, snapshot, difference, notes, names, division);
  const int rc = comparison.compute();
  *passed_over = comparison.passedOver();
  return rc;
}

int compareGroup(const CephRoot &active, const CephRoot &snapshot, int directories, uint64_t from,
                 uint64_t to, int part) {
  UniqueFd own(fcntl(directories, F_DUPFD_CLOEXEC, 0));
  if (!own) return -errno;
  ChangeNotes notes;
  LeadNames names;
  return TreeComparison(active, snapshot, nullptr, &notes, &names)
      .computeGroup(std::move(own), from, to, part);
}

}  // namespace kest
