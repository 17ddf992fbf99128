#include "verify/tree_compare.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <unordered_set>
#include <vector>

#include "run/run_handles.h"
#include "verify/clone_relation.h"
#include "verify/entry_pairs.h"
#include "verify/file_data.h"
#include "verify/inode_path.h"
#include "verify/link_groups.h"
#include "verify/object_state.h"

namespace {

std::string join(const std::string &dir, const std::string &name) {
  return dir.empty() ? name : dir + "/" + name;
}

// Both are the same object, which has one name at a time: where it stands elsewhere it was moved.
bool isOneObject(kest_ifile_t *active, kest_ifile_t *snapshot) {
  struct stat now, then;
  return kest_same_file(active, snapshot) == 1 &&
         (isDirectory(active->if_mode) ||
          (statObject(active, &now) == 0 && statObject(snapshot, &then) == 0 && now.st_nlink == 1 &&
           then.st_nlink == 1));
}

bool standsInBothTrees(uint64_t ino) {
  const Inode active = openInode(handles.activeFsP, ino);
  const Inode snapshot = active ? openInode(handles.oldFsP, ino) : nullptr;
  return snapshot && isOneObject(active.get(), snapshot.get());
}

// Everything but names, link groups and what is in directories. 0 or an errno.
int compareObjects(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                   const std::string &path, Report *report) {
  int rc = compareProperties(active, snapshot, path, report);
  if (rc != 0 || !isRegular(active->if_mode)) return rc;
  rc = compareData(active, snapshot, by_difference, path, report);
  return rc != 0 ? rc : compareClones(active, snapshot, path, report);
}

// Two objects that changed places and equal each other in all that counts did not change anything.
bool areEqual(uint64_t active_ino, uint64_t snapshot_ino) {
  const Inode active = openInode(handles.activeFsP, active_ino);
  const Inode snapshot = openInode(handles.oldFsP, snapshot_ino);
  struct stat now, then;
  if (!active || !snapshot || ((active->if_mode ^ snapshot->if_mode) & S_IFMT) != 0 ||
      statObject(active.get(), &now) != 0 || statObject(snapshot.get(), &then) != 0 ||
      now.st_nlink != 1 || then.st_nlink != 1)
    return false;
  Report report(true);
  if (compareObjects(active.get(), snapshot.get(), false, "", &report) != 0 || report.differences() > 0)
    return false;
  if (!isDirectory(active->if_mode)) return true;
  EntryPairs pairs;
  if (addListing(handles.activeFsP, active_ino, &pairs) != 0 ||
      addListing(handles.oldFsP, snapshot_ino, &pairs) != 0)
    return false;
  return std::all_of(pairs.begin(), pairs.end(), [](const auto &one) {
    const EntryPair &pair = one.second;
    return pair.active && pair.snapshot && !pair.active->junction &&
           areEqual(pair.active->ino, pair.snapshot->ino);
  });
}

class TreeComparison {
 public:
  TreeComparison(bool full, Report *report) : full_(full), report_(report) {}

  int compare() {
    const int broken_parents = full_ ? 0 : anyBrokenParent();
    if (broken_parents < 0) return -1;
    compareBoth({handles.rootIno, handles.rootIno, "", ""});
    do {
      while (!dirs_.empty()) {
        const Dirs next = std::move(dirs_.back());
        dirs_.pop_back();
        enter(next);
      }
      tellNewcomers();
    } while (!dirs_.empty());
    links_.report(report_);
    return broken_parents ? compareUnchangedClones(report_) : 0;
  }

 private:
  // Two objects, or, with one number 0, what only one tree has. Paths are those of the tree itself.
  struct Dirs {
    uint64_t active = 0, snapshot = 0;
    std::string active_path, path;
  };

  // Compares two objects and puts directories aside to be entered.
  void compareBoth(const Dirs &both) {
    const Inode active = openInode(handles.activeFsP, both.active);
    if (!active && errno == ENOENT) return onlyInSnapshot(both.snapshot, both.path);
    if (!active) return report_->trouble(both.path, errno);
    const Inode snapshot = openInode(handles.oldFsP, both.snapshot);
    if (!snapshot) return report_->trouble(both.path, errno);
    const uint32_t now = active->if_mode & S_IFMT, then = snapshot->if_mode & S_IFMT;
    if (now != then) {
      report_->difference("type", both.path, {kindName(then), kindName(now)});
      if (S_ISDIR(now)) dirs_.push_back({both.active, 0, both.active_path, both.path});
      if (S_ISDIR(then)) dirs_.push_back({0, both.snapshot, both.active_path, both.path});
      return;
    }
    const bool same = kest_same_file(active.get(), snapshot.get()) == 1;
    if (full_ || !same || kest_idifference(handles.iscanP, both.active) != 0) {
      if (!S_ISDIR(now)) {
        struct stat a, s;
        if (statObject(active.get(), &a) != 0 || statObject(snapshot.get(), &s) != 0)
          return report_->trouble(both.path, errno);
        if (!links_.meet(a, s)) return;
      }
      const int rc = compareObjects(active.get(), snapshot.get(), same && !full_, both.path, report_);
      if (rc != 0) report_->trouble(both.path, rc);
    }
    if (S_ISDIR(now)) dirs_.push_back(both);
  }

  void enter(const Dirs &both) {
    EntryPairs pairs;
    int rc = 0;
    if (!full_ && both.active == both.snapshot && standsInBothTrees(both.active)) {
      rc = addChangedEntries(both.active, &pairs);
      if (rc == 0) rc = addCommonEntries(both.active, &pairs);
    } else {
      if (both.active != 0) rc = addListing(handles.activeFsP, both.active, &pairs);
      if (rc == ENOENT) rc = 0;  // gone since its name was read
      if (rc == 0 && both.snapshot != 0) rc = addListing(handles.oldFsP, both.snapshot, &pairs);
    }
    if (rc != 0) report_->trouble(both.path, rc);
    for (const auto &[name, pair] : pairs)
      visit(pair, join(both.active_path, name), join(both.path, name));
  }

  void visit(const EntryPair &pair, const std::string &active_path, const std::string &path) {
    if (pair.active && pair.active->junction) {
      report_->difference("extra", active_path, {"fileset"});
      if (pair.snapshot) onlyInSnapshot(pair.snapshot->ino, path);
    } else if (!pair.active) {
      onlyInSnapshot(pair.snapshot->ino, path);
    } else if (!pair.snapshot) {
      onlyInActive(*pair.active, active_path);
    } else if (belongTogether(*pair.active, *pair.snapshot)) {
      compareBoth({pair.active->ino, pair.snapshot->ino, active_path, path});
    } else {
      onlyInSnapshot(pair.snapshot->ino, path);
      onlyInActive(*pair.active, active_path);
    }
  }

  // Whether what stands under one name is to be compared: unless one of the two stands elsewhere in the
  // other tree.
  static bool belongTogether(const Entry &active, const Entry &snapshot) {
    if (active.ino == snapshot.ino) return true;
    if (!standsInBothTrees(active.ino) && !standsInBothTrees(snapshot.ino)) return true;
    return areEqual(active.ino, snapshot.ino);
  }

  void onlyInSnapshot(uint64_t ino, const std::string &path) {
    const Inode snapshot = openInode(handles.oldFsP, ino);
    if (!snapshot) return report_->trouble(path, errno);
    std::string now;
    if (standsInBothTrees(ino) && firstPath(handles.activeFsP, ino, &now) == 0 &&
        moved_.insert(ino).second) {
      report_->difference("moved", path, {now});
      return compareBoth({ino, ino, now, path});
    }
    report_->difference("missing", path, {kindName(snapshot->if_mode)});
    if (isDirectory(snapshot->if_mode)) dirs_.push_back({0, ino, path, path});
  }

  // Whether the snapshot's name of an object that stood elsewhere leads here is known only at the end.
  void onlyInActive(const Entry &entry, const std::string &path) {
    if (standsInBothTrees(entry.ino))
      newcomers_.emplace(entry.ino, std::make_pair(path, entry));
    else
      tellExtra(entry, path);
  }

  void tellExtra(const Entry &entry, const std::string &path) {
    report_->difference("extra", path, {kindName(entry.mode)});
    if (isDirectory(entry.mode)) dirs_.push_back({entry.ino, 0, path, path});
  }

  void tellNewcomers() {
    std::map<uint64_t, std::pair<std::string, Entry>> these;
    these.swap(newcomers_);
    for (const auto &[ino, where] : these)
      if (!moved_.contains(ino)) tellExtra(where.second, where.first);
  }

  const bool full_;
  Report *report_;
  LinkGroups links_;
  std::vector<Dirs> dirs_;
  std::unordered_set<uint64_t> moved_;
  std::map<uint64_t, std::pair<std::string, Entry>> newcomers_;
};

}  // namespace

int compareTrees(bool full, Report *report) {
  return TreeComparison(full, report).compare();
}
