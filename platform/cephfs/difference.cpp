#include "cephfs/difference.h"

#include <dirent.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>

#include "cephfs/file_objects.h"
#include "cephfs/inode.h"
#include "cephfs/inode_compare.h"
#include "cephfs/names.h"
#include "cephfs/run_lock.h"
#include "cephfs/tree_compare.h"
#include "filesystem/entry_list.h"

namespace kest {

namespace {

// More leads than this are found by listing the directory once more.
constexpr size_t kMostLookUps = 200;

bool byTarget(const DirEntry &a, const DirEntry &b) {
  return a.target < b.target;
}

// Entries of an active directory that differ or lead to a difference, by inode number.
class LeadListing : public EntryStream {
 public:
  LeadListing(CephInode &dir, const DifferenceSet &set, const LeadNames &names, uint64_t snapid)
      : dir_(dir), set_(set), names_(names), snapid_(snapid) {}

  int next(const kest_direntx64_t **entry) override {
    *entry = nullptr;
    if (!listed_) {
      if (int rc = list(); rc < 0) return rc;
      listed_ = true;
    }
    if (at_ == entries_.size()) return 0;
    current_ = toRecord(entries_[at_++]);
    *entry = &current_;
    return 0;
  }

 private:
  int list() {
    std::vector<uint64_t> wanted;
    const uint64_t dir = dir_.facts().ino;
    SortedPairs::Cursor cursor = set_.leadsFrom(dir);
    for (NumberPair lead; cursor.next(&lead) && lead.first == dir;) wanted.push_back(lead.second);
    if (wanted.empty()) return 0;
    const int rc = namesKnown(wanted) ? lookUp() : listAll(wanted);
    std::stable_sort(entries_.begin(), entries_.end(), byTarget);
    return rc;
  }

  // Puts the entries of all `wanted` inodes into entries_. Returns false if the name of one is unknown.
  bool namesKnown(const std::vector<uint64_t> &wanted) {
    if (!names_.whole() || wanted.size() > kMostLookUps) return false;
    std::vector<uint64_t> missing = wanted;
    if (const std::vector<DirEntry> *noted = names_.of(dir_.facts().ino)) {
      for (const DirEntry &one : *noted) {
        if (!std::binary_search(wanted.begin(), wanted.end(), one.target)) continue;
        entries_.push_back(one);
        std::erase(missing, one.target);
      }
    }
    // A directory that has not moved has its place in the snapshot.
    for (const uint64_t ino : missing) {
      SnapshotPlace place;
      if (!dir_.ref().client()->placeInSnapshot(snapid_, ino, &place) ||
          place.parent != dir_.facts().ino)
        return false;
      entries_.push_back({place.name, ino, false, DT_DIR});
    }
    return true;
  }

  // Drops the entries that lead to another inode by now.
  int lookUp() {
    std::vector<DirEntry> there;
    for (DirEntry &one : entries_) {
      InodeRef inode;
      CephStat st;
      const int rc = dir_.ref().client()->lookUp(dir_.ref(), one.name, &inode, &st);
      if (rc < 0 && rc != -ENOENT && rc != -ESTALE) return rc;
      if (rc == 0 && st.stx_ino == one.target) there.push_back(std::move(one));
    }
    entries_ = std::move(there);
    return 0;
  }

  int listAll(const std::vector<uint64_t> &wanted) {
    std::vector<CephEntry> found;
    entries_.clear();
    if (int rc = dir_.ref().client()->list(dir_.ref(), &found); rc < 0) return rc;
    for (const CephEntry &one : found)
      if (std::binary_search(wanted.begin(), wanted.end(), one.st.stx_ino))
        entries_.push_back(toEntry(one));
    return 0;
  }

  CephInode &dir_;
  const DifferenceSet &set_;
  const LeadNames &names_;
  const uint64_t snapid_;
  bool listed_ = false;
  std::vector<DirEntry> entries_;
  size_t at_ = 0;
  kest_direntx64_t current_{};
};

}  // namespace

int CephDifference::compute() {
  if (int rc = active_->client->settle(); rc < 0) return rc;
  notes_ = {};
  names_ = {};
  if (division_) {
    const int rc =
        compareTrees(*active_, *snapshot_, &set_, &notes_, &names_, &passed_over_, &*division_);
    // Without room for the files through which the processes exchange their results, this process
    // compares everything.
    if (rc != -ENOSPC && rc != -EDQUOT) return rc;
    notes_ = {};
    names_ = {};
  }
  return compareTrees(*active_, *snapshot_, &set_, &notes_, &names_, &passed_over_);
}

int CephDifference::compareGroup(int directories, const kest_group_t &group, int part) {
  return kest::compareGroup(*active_, *snapshot_, directories, group.from, group.to, part);
}

int CephDifference::readAttributes(const DiffInode &inode, kest_iattr64_t *attr) {
  InodeRef found;
  CephStat st;
  int rc = inode.alive() ? openByNumber(*active_, inode.ino, &found, &st) : -ENOENT;
  if (rc == 0) return fillAttributes(found, *active_, st, attr);
  if (rc != -ENOENT) return rc;
  rc = findInSnapshot(*snapshot_, inode.ino, &found, &st);
  if (rc == 0) rc = fillAttributes(found, *snapshot_, st, attr);
  if (rc == 0) attr->ia_nlink = 0;
  return rc;
}

int CephDifference::listSnapshot(uint64_t ino, std::vector<CephEntry> *entries) {
  InodeRef dir;
  CephStat st;
  const int rc = findInSnapshot(*snapshot_, ino, &dir, &st);
  return rc < 0 ? rc : snapshot_->client->list(dir, entries);
}

// The entries that only one of two directories has, from two listings.
int CephDifference::diffListings(const InodeRef &active, uint64_t ino, EntryDifference *difference) {
  std::vector<CephEntry> now, then;
  if (int rc = active.client()->list(active, &now); rc < 0) return rc;
  if (int rc = listSnapshot(ino, &then); rc < 0) return rc;
  leaveOutLockFile(*active_, ino, &now);
  leaveOutLockFile(*snapshot_, ino, &then);
  for (const CephEntry &one : now) difference->active.push_back(toEntry(one));
  for (const CephEntry &one : then) difference->snapshot.push_back(toEntry(one));
  return dropCommonEntries(difference, [](uint64_t) { return 1; });
}

int CephDifference::listChanged(Inode &dir, EntryList *entries) {
  entries->clear();
  const uint64_t ino = dir.facts().ino;
  const DiffInode own = set_.find(ino);
  if (!own.alive()) return 0;
  if (own.inSnapshot() && (own.state & KEST_DI_ENTRIES) == 0) return 0;
  const InodeRef &active = static_cast<CephInode &>(dir).ref();
  if (!own.inSnapshot()) {
    std::vector<CephEntry> now;
    if (int rc = active.client()->list(active, &now); rc < 0) return rc;
    for (const CephEntry &one : now) entries->add(toRecord(toEntry(one)));
    return 0;
  }
  EntryDifference listed;
  const EntryDifference *difference = notes_.findEntries(ino);
  if (difference == nullptr) {
    if (int rc = diffListings(active, ino, &listed); rc < 0) return rc;
    difference = &listed;
  }
  EntryDifference left = *difference;
  dropPairs(&left, [&](uint64_t then, uint64_t now) { return set_.twinOf(then) == now; });
  // Whether the name still, or again, leads to the inode: 1, 0 or -errno.
  const auto means = [&](const DirEntry &entry) {
    InodeRef inode;
    CephStat st;
    const int rc = active.client()->lookUp(active, entry.name, &inode, &st);
    if (rc == -ENOENT || rc == -ESTALE) return 0;
    return rc < 0 ? rc : st.stx_ino == entry.target;
  };
  return visitByName(
      left,
      [&](const DirEntry &entry) {
        const int there = means(entry);
        if (there > 0) entries->add(toRecord(entry));
        return std::min(there, 0);
      },
      [&](const DirEntry &entry) {
        const int there = means(entry);
        if (there != 0) return std::min(there, 0);
        kest_direntx64_t record = toRecord(entry);
        record.d_type |= KEST_DT_SNAP;
        entries->add(record);
        return 0;
      });
}

std::unique_ptr<EntryStream> CephDifference::leadingEntries(Inode &dir) {
  return std::make_unique<LeadListing>(static_cast<CephInode &>(dir), set_, names_, snapshot_->snapid);
}

int CephDifference::readChange(uint64_t ino, kest_change_t *change) {
  return describeChange(*active_, *snapshot_, ino, change);
}

int CephDifference::listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                                      std::vector<FileRange> *ranges) {
  struct stat st;
  if (int rc = file.stat(&st); rc < 0) return rc;
  InodeRef there;
  CephStat then;
  if (int rc = openByNumber(*snapshot_, file.facts().ino, &there, &then); rc < 0) return rc;
  const uint64_t end = std::min<uint64_t>({static_cast<uint64_t>(st.st_size), then.stx_size, to});
  return diffObjects(static_cast<CephInode &>(file).ref(), file.facts().ino, snapshot_->snapid, from,
                     end, SIZE_MAX, ranges);
}

}  // namespace kest
