#include "fsetcompare/tree_compare.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <unordered_set>
#include <vector>

#include "fsetcompare/clone_relation.h"
#include "fsetcompare/entry_pairs.h"
#include "fsetcompare/file_data.h"
#include "fsetcompare/link_groups.h"
#include "fsetcompare/object_state.h"
#include "object/paths.h"
#include "run/run_handles.h"

namespace {

std::string join(const std::string &dir, const std::string &name) {
  return dir.empty() ? name : dir + "/" + name;
}

Result statBoth(kest_ifile_t *active, kest_ifile_t *snapshot, struct stat *now, struct stat *then) {
  if (Result r = statObject(active, now); !r) return r;
  return statObject(snapshot, then);
}

// Opens both inodes or fails.
Result openBoth(uint64_t active_ino, uint64_t snapshot_ino, Inode *active, Inode *snapshot) {
  if (Result r = openInode(handles.activeFsP, active_ino, active); !r) return r;
  return openInode(handles.oldFsP, snapshot_ino, snapshot);
}

// Returns true if both are the same object and it has one name at a time, so that another name in the
// other tree means a move. Returns false if they cannot be examined.
bool isOneObject(kest_ifile_t *active, kest_ifile_t *snapshot) {
  struct stat now, then;
  if (kest_same_file(active, snapshot) != 1) return false;
  if (isDirectory(active->if_mode)) return true;
  return statBoth(active, snapshot, &now, &then) && now.st_nlink == 1 && then.st_nlink == 1;
}

bool isInBothTrees(uint64_t ino) {
  Inode active, snapshot;
  return openBoth(ino, ino, &active, &snapshot) && isOneObject(active.get(), snapshot.get());
}

// Compares everything except names, hard links and the contents of directories.
Result compareObjects(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                      const std::string &path, Report *report) {
  if (Result r = compareProperties(active, snapshot, path, report); !r) return r;
  if (!isRegular(active->if_mode)) return {};
  if (Result r = compareData(active, snapshot, by_difference, path, report); !r) return r;
  return compareClones(active, snapshot, path, report);
}

// Returns true for a nested fileset that is at the snapshot's place, or that only the snapshot has: no
// restore brings back the latter.
bool isNestedAlone(const EntryPair &pair) {
  if (!pair.nested || pair.snapshot) return false;
  return !pair.active || (pair.active->junction && pair.active->ino == *pair.nested);
}

// Finds the path of the nested fileset `id` in the snapshot. Returns false if the snapshot does not
// have it.
bool nestedHome(uint64_t id, std::string *path) {
  uint64_t dir = 0;
  char name[256];
  if (kest_junction_home(handles.iscanP, id, &dir, name) != 1) return false;
  std::string parent;
  if (dir != handles.rootIno && !firstPath(handles.oldFsP, dir, &parent)) return false;
  *path = join(parent, name);
  return true;
}

// Returns true if two objects that changed places are equal in everything that is compared, in which
// case nothing has changed. Returns false if they cannot be compared.
bool areEqual(uint64_t active_ino, uint64_t snapshot_ino) {
  Inode active, snapshot;
  struct stat now, then;
  if (!openBoth(active_ino, snapshot_ino, &active, &snapshot)) return false;
  if (((active->if_mode ^ snapshot->if_mode) & S_IFMT) != 0) return false;
  if (!statBoth(active.get(), snapshot.get(), &now, &then)) return false;
  if (now.st_nlink != 1 || then.st_nlink != 1) return false;
  Report report(true);
  if (!compareObjects(active.get(), snapshot.get(), false, "", &report)) return false;
  if (report.differences() > 0) return false;
  if (!isDirectory(active->if_mode)) return true;
  EntryPairs pairs;
  if (!addListing(handles.activeFsP, active_ino, &pairs)) return false;
  if (!addListing(handles.oldFsP, snapshot_ino, &pairs)) return false;
  return std::all_of(pairs.begin(), pairs.end(), [](const auto &one) {
    const EntryPair &pair = one.second;
    if (isNestedAlone(pair)) return true;
    return pair.active && pair.snapshot && !pair.active->junction &&
           areEqual(pair.active->ino, pair.snapshot->ino);
  });
}

class TreeComparison {
 public:
  TreeComparison(bool full, Report *report) : full_(full), report_(report) {}

  Result compare() {
    bool broken_parents = false;
    if (!full_)
      if (Result r = anyBrokenParent(&broken_parents); !r) return r;
    compareBoth({handles.rootIno, handles.rootIno, "", ""});
    do {
      while (!dirs_.empty()) {
        const Dirs next = std::move(dirs_.back());
        dirs_.pop_back();
        enter(next);
      }
      reportNewcomers();
    } while (!dirs_.empty());
    links_.report(report_);
    return broken_parents ? compareUnchangedClones(report_) : Result{};
  }

 private:
  // Two objects, or an object of only one tree if the other number is 0. Each path is that in the
  // object's own tree.
  struct Dirs {
    uint64_t active = 0, snapshot = 0;
    std::string active_path, path;
  };

  // Compares two objects and remembers directories to enter later.
  void compareBoth(const Dirs &both) {
    Inode active, snapshot;
    if (Result r = openInode(handles.activeFsP, both.active, &active); !r) {
      if (r.err == ENOENT) return onlyInSnapshot(both.snapshot, both.path);
      return report_->trouble(both.path, r.err);
    }
    if (Result r = openInode(handles.oldFsP, both.snapshot, &snapshot); !r)
      return report_->trouble(both.path, r.err);
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
        if (Result r = statBoth(active.get(), snapshot.get(), &a, &s); !r)
          return report_->trouble(both.path, r.err);
        if (!links_.meet(a, s)) return;
      }
      const Result compared =
          compareObjects(active.get(), snapshot.get(), same && !full_, both.path, report_);
      if (!compared) report_->trouble(both.path, compared.err);
    }
    if (S_ISDIR(now)) dirs_.push_back(both);
  }

  void enter(const Dirs &both) {
    EntryPairs pairs;
    if (Result r = pairEntries(both, &pairs); !r) report_->trouble(both.path, r.err);
    for (const auto &[name, pair] : pairs)
      visit(pair, join(both.active_path, name), join(both.path, name));
  }

  Result pairEntries(const Dirs &both, EntryPairs *pairs) {
    if (!full_ && both.active == both.snapshot && isInBothTrees(both.active)) {
      if (Result r = addChangedEntries(both.active, pairs); !r) return r;
      return addCommonEntries(both.active, pairs);
    }
    // ENOENT: removed since its name was read.
    if (both.active != 0)
      if (Result r = addListing(handles.activeFsP, both.active, pairs); !r && r.err != ENOENT) return r;
    return both.snapshot != 0 ? addListing(handles.oldFsP, both.snapshot, pairs) : Result{};
  }

  void visit(const EntryPair &pair, const std::string &active_path, const std::string &path) {
    if (isNestedAlone(pair)) return;
    if (pair.active && pair.active->junction) {
      std::string home;
      if (nestedHome(pair.active->ino, &home))
        report_->difference("moved", home, {active_path});
      else
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

  // Returns true if the objects of one name must be compared with each other, that is, unless one of
  // them has another name in the other tree.
  static bool belongTogether(const Entry &active, const Entry &snapshot) {
    if (active.ino == snapshot.ino) return true;
    if (!isInBothTrees(active.ino) && !isInBothTrees(snapshot.ino)) return true;
    return areEqual(active.ino, snapshot.ino);
  }

  void onlyInSnapshot(uint64_t ino, const std::string &path) {
    Inode snapshot;
    if (Result r = openInode(handles.oldFsP, ino, &snapshot); !r) return report_->trouble(path, r.err);
    std::string now;
    if (isInBothTrees(ino) && firstPath(handles.activeFsP, ino, &now) && moved_.insert(ino).second) {
      report_->difference("moved", path, {now});
      return compareBoth({ino, ino, now, path});
    }
    report_->difference("missing", path, {kindName(snapshot->if_mode)});
    if (isDirectory(snapshot->if_mode)) dirs_.push_back({0, ino, path, path});
  }

  // Only the end of the walk shows whether the object was moved here from another name, so postpone the
  // report.
  void onlyInActive(const Entry &entry, const std::string &path) {
    if (isInBothTrees(entry.ino))
      newcomers_.emplace(entry.ino, std::make_pair(path, entry));
    else
      reportExtra(entry, path);
  }

  void reportExtra(const Entry &entry, const std::string &path) {
    report_->difference("extra", path, {kindName(entry.mode)});
    if (isDirectory(entry.mode)) dirs_.push_back({entry.ino, 0, path, path});
  }

  void reportNewcomers() {
    std::map<uint64_t, std::pair<std::string, Entry>> these;
    these.swap(newcomers_);
    for (const auto &[ino, where] : these)
      if (!moved_.contains(ino)) reportExtra(where.second, where.first);
  }

  const bool full_;
  Report *report_;
  LinkGroups links_;
  std::vector<Dirs> dirs_;
  std::unordered_set<uint64_t> moved_;
  std::map<uint64_t, std::pair<std::string, Entry>> newcomers_;
};

}  // namespace

Result compareTrees(bool full, Report *report) {
  return TreeComparison(full, report).compare();
}
