#include "verify/clone_relation.h"

#include <cerrno>
#include <memory>
#include <vector>

#include "run/run_handles.h"
#include "scan/clone_state.h"
#include "verify/extent_map.h"
#include "verify/file_data.h"
#include "verify/inode_path.h"

namespace {

struct Clone {
  bool is = false;  // a clone, a parent or both
  CloneAttr attr;
  CloneSnapAttr snap;

  int depth() const { return attr.depth(); }
  bool isParent() const { return is && attr.isParent(); }
};

// 0 or an errno.
int readClone(kest_ifile_t *file, Clone *clone) {
  const int rc = kest_iclone_attr(file, clone->attr.bytes.data(), clone->snap.bytes.data());
  if (rc < 0) return errno;
  clone->is = rc == 1;
  if (!clone->is) *clone = {};
  return 0;
}

// A clone's parent in its own tree.
struct Parent {
  Inode file;  // empty: the number leads to no living parent
  Clone clone;
};

// 0 or an errno.
int findParent(kest_fssnap_handle_t *tree, const Clone &clone, Parent *parent) {
  if (!clone.is || clone.depth() == 0 || clone.attr.parentInSnapshot()) return 0;
  parent->file = openInode(tree, clone.attr.parentIno());
  if (!parent->file) return errno == ENOENT ? 0 : errno;
  if (!isRegular(parent->file->if_mode)) parent->file.reset();
  if (parent->file)
    if (const int rc = readClone(parent->file.get(), &parent->clone)) return rc;
  if (!parent->clone.isParent()) parent->file.reset();
  return 0;
}

std::string text(const Clone &clone) {
  if (!clone.is) return "none";
  return (clone.isParent() ? "parent:" : "clone:") + std::to_string(clone.depth());
}

class CloneComparison {
 public:
  CloneComparison(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path, Report *report)
      : active_(active), snapshot_(snapshot), path_(path), report_(report) {}

  // 0 or an errno.
  int compare() {
    int rc = readClone(active_, &have_);
    if (rc == 0) rc = readClone(snapshot_, &want_);
    if (rc != 0 || (!want_.is && !have_.is)) return rc;
    rc = findParent(handles.activeFsP, have_, &parent_now_);
    if (rc == 0) rc = findParent(handles.oldFsP, want_, &parent_then_);
    if (rc != 0) return rc;
    const bool survived = kest_same_file(active_, snapshot_) == 1;
    if (!survived && want_.is && want_.depth() > 0 && !parentFits(want_, parent_then_)) {
      const bool right = want_.isParent() ? have_.isParent() && have_.depth() == 0 : !have_.is;
      if (!right) differ();
      return 0;
    }
    if (want_.is != have_.is) return differ();
    int depth = want_.depth();
    if (!survived) {
      bool whole = false;
      if ((rc = reachesRoot(want_, &whole)) != 0) return rc;
      if (!whole) depth = parent_now_.file ? parent_now_.clone.depth() + 1 : 0;
    }
    if (want_.isParent() != have_.isParent() || have_.depth() != depth) return differ();
    return compareParents();
  }

 private:
  int differ() {
    report_->difference("clone", path_, {text(want_), text(have_)});
    return 0;
  }

  static bool parentFits(const Clone &clone, const Parent &parent) {
    if (clone.attr.parentInSnapshot()) return true;
    return parent.file && parent.clone.depth() + 1 == clone.depth();
  }

  // Whether every ancestor in the snapshot is there. 0 or an errno.
  static int reachesRoot(Clone clone, bool *whole) {
    while (clone.depth() > 0 && !clone.attr.parentInSnapshot()) {
      Parent parent;
      if (const int rc = findParent(handles.oldFsP, clone, &parent)) return rc;
      if (!parentFits(clone, parent)) {
        *whole = false;
        return 0;
      }
      clone = parent.clone;
    }
    *whole = true;
    return 0;
  }

  int compareParents() {
    if (want_.attr.parentInSnapshot() || have_.attr.parentInSnapshot()) {
      if (want_.attr.parentInSnapshot() != have_.attr.parentInSnapshot() ||
          want_.attr.parentIno() != have_.attr.parentIno() ||
          want_.snap.snapId() != have_.snap.snapId())
        report_->difference("parent", path_);
      return 0;
    }
    if (!parent_then_.file && !parent_now_.file) return 0;
    if (!parent_then_.file || !parent_now_.file) {
      report_->difference("parent", path_);
      return 0;
    }
    if (kest_same_file(parent_now_.file.get(), parent_then_.file.get()) != 1) {
      std::string now, then;
      if (firstPath(handles.activeFsP, parent_now_.file->if_inode, &now) != 0 ||
          firstPath(handles.oldFsP, parent_then_.file->if_inode, &then) != 0)
        return errno;
      if (now != then) {
        report_->difference("parent", path_, {then, now});
        return 0;
      }
    }
    return compareSharing();
  }

  int compareSharing() {
    std::vector<Extent> maps[4];
    kest_ifile_t *const files[4] = {active_, parent_now_.file.get(), snapshot_,
                                    parent_then_.file.get()};
    for (int i = 0; i < 4; ++i)
      if (const int rc = readExtentMap(files[i], &maps[i])) return rc;
    const int64_t at = firstMissing(sharedRanges(maps[2], maps[3]), sharedRanges(maps[0], maps[1]));
    if (at >= 0) report_->difference("unshared", path_, {std::to_string(at)});
    return 0;
  }

  kest_ifile_t *active_, *snapshot_;
  const std::string &path_;
  Report *report_;
  Clone have_, want_;
  Parent parent_now_, parent_then_;
};

// 1, 0, or -1 and errno.
int isBrokenParent(uint64_t ino) {
  const int known = kest_idifference(handles.iscanP, ino);
  if (known < 0) return -1;
  const bool in_both =
      (known & KEST_DI_ACTIVE) && (known & KEST_DI_SNAPSHOT) && !(known & KEST_DI_REPLACED);
  if (!(known & KEST_DI_SNAPSHOT) || (in_both && !(known & KEST_DI_CLONE))) return 0;
  Clone then, now;
  const Inode snapshot = openInode(handles.oldFsP, ino);
  if (!snapshot) return errno == ENOENT ? 0 : -1;
  if (!isRegular(snapshot->if_mode)) return 0;
  if ((errno = readClone(snapshot.get(), &then)) != 0) return -1;
  if (!then.isParent()) return 0;
  const Inode active = openInode(handles.activeFsP, ino);
  if (!active) return errno == ENOENT ? 1 : -1;
  if (kest_same_file(active.get(), snapshot.get()) != 1) return 1;
  if ((errno = readClone(active.get(), &now)) != 0) return -1;
  if (!now.isParent() || now.depth() != then.depth() || active->if_size != snapshot->if_size) return 1;
  return dataRangesDiffer(active.get());
}

// A clone that stands in the difference was compared already.
int compareUnchanged(uint64_t ino, Report *report) {
  const int known = kest_idifference(handles.iscanP, ino);
  if (known != 0) return known < 0 ? errno : 0;
  const Inode active = openInode(handles.activeFsP, ino), snapshot = openInode(handles.oldFsP, ino);
  if (!active || !snapshot) return errno == ENOENT ? 0 : errno;
  Clone clone;
  if (const int rc = readClone(snapshot.get(), &clone)) return rc;
  if (clone.depth() == 0 || kest_same_file(active.get(), snapshot.get()) != 1) return 0;
  std::string path;
  if (firstPath(handles.oldFsP, ino, &path) != 0) return errno;
  return compareClones(active.get(), snapshot.get(), path, report);
}

}  // namespace

int compareClones(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                  Report *report) {
  return CloneComparison(active, snapshot, path, report).compare();
}

int anyBrokenParent() {
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (kest_next_inode64(handles.iscanP, UINT64_MAX, &attr) != 0) return -1;
    if (!attr) return 0;
    if (const int broken = isBrokenParent(attr->ia_inode)) return broken;
  }
}

int compareUnchangedClones(Report *report) {
  const InodeScan all(kest_open_inodescan64(handles.oldFsP, nullptr, nullptr));
  if (!all) return -1;
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (kest_next_inode64(all.get(), UINT64_MAX, &attr) != 0) return -1;
    if (!attr) return 0;
    if (!isRegular(attr->ia_mode)) continue;
    const uint64_t ino = attr->ia_inode;
    if (const int rc = compareUnchanged(ino, report))
      report->trouble("inode " + std::to_string(ino), rc);
  }
}
