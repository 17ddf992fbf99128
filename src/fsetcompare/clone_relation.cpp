#include "fsetcompare/clone_relation.h"

#include <vector>

#include "fsetcompare/extent_map.h"
#include "fsetcompare/file_data.h"
#include "object/paths.h"
#include "run/run_handles.h"
#include "scan/clone_state.h"

namespace {

struct Clone {
  bool is = false;  // a clone, a clone parent or both
  CloneAttr attr;
  CloneSnapAttr snap;

  int depth() const { return attr.depth(); }
  bool isParent() const { return is && attr.isParent(); }
};

// Does not call isClone, which would print the message of a restore.
Result readClone(kest_ifile_t *file, Clone *clone) {
  const int is = kest_iclone_attr(file, clone->attr.bytes.data(), clone->snap.bytes.data());
  if (is < 0) return failedErrno(0);
  clone->is = is == 1;
  if (!clone->is) *clone = {};
  return {};
}

Result readClones(kest_ifile_t *active, kest_ifile_t *snapshot, Clone *have, Clone *want) {
  if (Result r = readClone(active, have); !r) return r;
  return readClone(snapshot, want);
}

// The parent of a clone in the clone's own tree.
struct Parent {
  Inode file;  // empty if the number leads to no clone parent
  Clone clone;
};

Result findParent(kest_fssnap_handle_t *tree, const Clone &clone, Parent *parent) {
  if (!clone.is || clone.depth() == 0 || clone.attr.parentInSnapshot()) return {};
  if (Result r = openIfThere(tree, clone.attr.parentIno(), &parent->file); !r || !parent->file)
    return r;
  if (!isRegular(parent->file->if_mode)) {
    parent->file.reset();
    return {};
  }
  if (Result r = readClone(parent->file.get(), &parent->clone); !r) return r;
  if (!parent->clone.isParent()) parent->file.reset();
  return {};
}

std::string text(const Clone &clone) {
  if (!clone.is) return "none";
  return (clone.isParent() ? "parent:" : "clone:") + std::to_string(clone.depth());
}

class CloneComparison {
 public:
  CloneComparison(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path, Report *report)
      : active_(active), snapshot_(snapshot), path_(path), report_(report) {}

  Result compare() {
    if (Result r = readClones(active_, snapshot_, &have_, &want_); !r) return r;
    if (!want_.is && !have_.is) return {};
    if (Result r = findParent(handles.activeFsP, have_, &parent_now_); !r) return r;
    if (Result r = findParent(handles.oldFsP, want_, &parent_then_); !r) return r;
    const bool survived = kest_same_file(active_, snapshot_) == 1;
    // The restore makes such a file from its data, so this is what equality means here.
    if (!survived && want_.is && want_.depth() > 0 && !parentFits(want_, parent_then_)) {
      const bool right = want_.isParent() ? have_.isParent() && have_.depth() == 0 : !have_.is;
      return right ? Result{} : differ();
    }
    if (want_.is != have_.is) return differ();
    int depth = want_.depth();
    if (!survived) {
      bool whole = false;
      if (Result r = reachesRoot(want_, &whole); !r) return r;
      if (!whole) depth = parent_now_.file ? parent_now_.clone.depth() + 1 : 0;
    }
    if (want_.isParent() != have_.isParent() || have_.depth() != depth) return differ();
    return compareParents();
  }

 private:
  Result differ() {
    report_->difference("clone", path_, {text(want_), text(have_)});
    return {};
  }

  static bool parentFits(const Clone &clone, const Parent &parent) {
    if (clone.attr.parentInSnapshot()) return true;
    return parent.file && parent.clone.depth() + 1 == clone.depth();
  }

  // Sets *whole if the snapshot holds every ancestor of the clone.
  static Result reachesRoot(Clone clone, bool *whole) {
    *whole = false;
    while (clone.depth() > 0 && !clone.attr.parentInSnapshot()) {
      Parent parent;
      if (Result r = findParent(handles.oldFsP, clone, &parent); !r) return r;
      if (!parentFits(clone, parent)) return {};
      clone = parent.clone;
    }
    *whole = true;
    return {};
  }

  Result compareParents() {
    if (want_.attr.parentInSnapshot() || have_.attr.parentInSnapshot()) {
      if (want_.attr.parentInSnapshot() != have_.attr.parentInSnapshot() ||
          want_.attr.parentIno() != have_.attr.parentIno() ||
          want_.snap.snapId() != have_.snap.snapId())
        report_->difference("parent", path_);
      return {};
    }
    if (!parent_then_.file && !parent_now_.file) return {};
    if (!parent_then_.file || !parent_now_.file) {
      report_->difference("parent", path_);
      return {};
    }
    if (kest_same_file(parent_now_.file.get(), parent_then_.file.get()) == 1) return compareSharing();
    std::string now, then;
    if (Result r = firstPath(handles.activeFsP, parent_now_.file->if_inode, &now); !r) return r;
    if (Result r = firstPath(handles.oldFsP, parent_then_.file->if_inode, &then); !r) return r;
    if (now == then) return compareSharing();
    report_->difference("parent", path_, {then, now});
    return {};
  }

  Result compareSharing() {
    std::vector<Extent> maps[4];
    kest_ifile_t *const files[4] = {active_, parent_now_.file.get(), snapshot_,
                                    parent_then_.file.get()};
    for (int i = 0; i < 4; ++i)
      if (Result r = readExtentMap(files[i], &maps[i]); !r) return r;
    const int64_t at = firstMissing(sharedRanges(maps[2], maps[3]), sharedRanges(maps[0], maps[1]));
    if (at >= 0) report_->difference("unshared", path_, {std::to_string(at)});
    return {};
  }

  kest_ifile_t *active_, *snapshot_;
  const std::string &path_;
  Report *report_;
  Clone have_, want_;
  Parent parent_now_, parent_then_;
};

// Sets *changed if the active inode is not the snapshot's clone parent any more, or has other data.
// Both inodes are open, and `then` is a parent.
Result parentChanged(kest_ifile_t *active, kest_ifile_t *snapshot, const Clone &then, bool *changed) {
  *changed = true;
  if (kest_same_file(active, snapshot) != 1) return {};
  Clone now;
  if (Result r = readClone(active, &now); !r) return r;
  if (!now.isParent() || now.depth() != then.depth() || active->if_size != snapshot->if_size) return {};
  return dataRangesDiffer(active, changed);
}

Result isBrokenParent(uint64_t ino, bool *broken) {
  *broken = false;
  const int known = kest_idifference(handles.iscanP, ino);
  if (known < 0) return failedErrno(0);
  const bool in_both =
      (known & KEST_DI_ACTIVE) && (known & KEST_DI_SNAPSHOT) && !(known & KEST_DI_REPLACED);
  if (!(known & KEST_DI_SNAPSHOT) || (in_both && !(known & KEST_DI_CLONE))) return {};
  Inode snapshot, active;
  if (Result r = openIfThere(handles.oldFsP, ino, &snapshot); !r || !snapshot) return r;
  if (!isRegular(snapshot->if_mode)) return {};
  Clone then;
  if (Result r = readClone(snapshot.get(), &then); !r || !then.isParent()) return r;
  if (Result r = openIfThere(handles.activeFsP, ino, &active); !r) return r;
  *broken = true;
  return active ? parentChanged(active.get(), snapshot.get(), then, broken) : Result{};
}

// Compares one clone that the difference does not contain; the walk has compared all others.
Result compareUnchanged(uint64_t ino, Report *report) {
  const int known = kest_idifference(handles.iscanP, ino);
  if (known < 0) return failedErrno(0);
  if (known & KEST_DI_SNAPSHOT) return {};
  Inode active, snapshot;
  uint64_t twin = 0;
  if (Result r = called(kest_twin(handles.iscanP, ino, &twin)); !r) return r;
  if (Result r = openIfThere(handles.activeFsP, twin != 0 ? twin : ino, &active); !r || !active)
    return r;
  if (Result r = openIfThere(handles.oldFsP, ino, &snapshot); !r || !snapshot) return r;
  Clone clone;
  if (Result r = readClone(snapshot.get(), &clone); !r) return r;
  if (clone.depth() == 0 || (twin == 0 && kest_same_file(active.get(), snapshot.get()) != 1)) return {};
  std::string path;
  if (Result r = firstPath(handles.oldFsP, ino, &path); !r) return r;
  return compareClones(active.get(), snapshot.get(), path, report);
}

}  // namespace

Result compareClones(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                     Report *report) {
  return CloneComparison(active, snapshot, path, report).compare();
}

Result anyBrokenParent(bool *broken) {
  *broken = false;
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (Result r = called(kest_next_inode64(handles.iscanP, UINT64_MAX, &attr)); !r || !attr) return r;
    if (Result r = isBrokenParent(attr->ia_inode, broken); !r || *broken) return r;
  }
}

Result compareUnchangedClones(Report *report) {
  const InodeScan all(kest_open_inodescan64(handles.oldFsP, nullptr, nullptr));
  if (!all) return failedErrno(0);
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (Result r = called(kest_next_inode64(all.get(), UINT64_MAX, &attr)); !r || !attr) return r;
    if (!isRegular(attr->ia_mode)) continue;
    const uint64_t ino = attr->ia_inode;
    if (Result r = compareUnchanged(ino, report); !r)
      report->trouble("inode " + std::to_string(ino), r.err);
  }
}
