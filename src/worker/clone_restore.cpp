#include "worker/clone_restore.h"

#include <unistd.h>
#include <cerrno>

#include "object/attr_restore.h"
#include "object/clear_flags.h"
#include "object/clone_origin.h"
#include "object/identity.h"
#include "object/object_stat.h"
#include "object/path_files.h"
#include "object/snap_path.h"
#include "object/step.h"
#include "object/xattr_restore.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_buffer.h"
#include "run/trace_log.h"
#include "scan/same_file.h"
#include "worker/clone_delta.h"
#include "worker/clone_parent.h"

namespace {

constexpr int kMostWaits = 20000;
constexpr useconds_t kWaitMicroseconds = 50;

class CloneRestore {
 public:
  CloneRestore(const std::string &path, uint64_t record_ino) : path_(path), recordIno_(record_ino) {}

  Step restore();
  bool existed() const { return existed_; }

 private:
  Step lookAt(bool *exists);
  Step makeFromParent();
  Step fillFromSnapshot();
  Step becomeParent();
  Step restoreXAttrs();
  Step lookAtLeftover(bool *unfinished);
  template <typename Call>
  int waitFor(const char *name, const Call &call);

  const std::string &path_;
  const uint64_t recordIno_;
  std::string snapPath_;
  uint64_t snapIno_ = 0;
  Inode snap_;
  CloneAttr attr_;
  CloneSnapAttr attrSnap_;
  kest_iattr64_t stat_{};  // of the snapshot's inode
  struct stat st_ {};
  bool existed_ = false;
};

// Performs `call`, clearing flags in its way; as long as somebody else works on the file, it is waited
// for.
template <typename Call>
int CloneRestore::waitFor(const char *name, const Call &call) {
  for (int waits = 0;; ++waits) {
    const int err = retryClearing(path_, "", call);
    if (err != EBUSY || waits > kMostWaits) return err;
    traceLog("cloneFile: %s wait %d\n", name, waits);
    flushTraceLines();
    usleep(kWaitMicroseconds);
  }
}

Step CloneRestore::lookAt(bool *exists) {
  *exists = statPath(path_, &st_) == 0;
  if (!*exists) return errno == ENOENT ? Step{} : failedStep(41, errno);
  return mayBecome(st_, snapIno_, stat_) ? Step{} : failedStep(41, ESTALE);
}

Step CloneRestore::restoreXAttrs() {
  if (settings.noXAttr) return {};
  const int rc = restoreXAttr(snapIno_, snap_.get(), &path_);
  return rc == 0 ? Step{} : failedStep(9, errno, rc);
}

// What stands at the path is the clone that a lost worker had begun, or has finished.
Step CloneRestore::lookAtLeftover(bool *unfinished) {
  Inode active = openInode(handles.activeFsP, st_.st_ino);
  CloneAttr attr;
  if (!active || !isClone(active.get(), &attr, nullptr)) return failedStep(4, EEXIST);
  *unfinished = !attr.isParent();
  return {};
}

Step CloneRestore::makeFromParent() {
  std::string parent_path;
  Inode parent;
  const uint32_t snap_id = attr_.parentInSnapshot() ? attrSnap_.snapId() : 0;
  if (int rc = getParentPath(attr_.parentIno(), snap_id, &parent_path, &parent); rc != 0) {
    const int err = errno;
    traceLog("cloneFile: cannot get parent path, path %s, ino %lld\n", path_.c_str(),
             static_cast<long long>(recordIno_));
    return failedStep(3, err, rc);
  }
  const int err = waitFor("kest_clone_copy", [&] {
    return kest_iclone_copy(parent.get(), handles.activeFsP, path_.c_str());
  });
  if (err != 0 && err != EEXIST) {
    traceLog("cloneFile: cannot clone file, fileSnapPathP %s, parent path %s, path %s, err %d\n",
             snapPath_.c_str(), parent_path.c_str(), path_.c_str(), err);
    return failedStep(4, err);
  }
  bool exists = false;
  Step step = lookAt(&exists);
  // What took the name meanwhile must be a clone that another worker makes.
  bool unfinished = true;
  if (step && exists && err == EEXIST) step = lookAtLeftover(&unfinished);
  if (step && exists) return restoreXAttrs();
  traceLog("cloneFile: cannot get new ino of path %s, err %d\n", path_.c_str(),
           step ? ENOENT : step.err);
  return step ? failedStep(41, ENOENT) : step;
}

Step CloneRestore::fillFromSnapshot() {
  const int rc = restoreCloneDelta(path_, snap_.get(), st_.st_ino);
  if (rc == 0) return {};
  const int err = errno;
  traceLog("cloneFile: restore clone delta failed, path %s, snapIno %lld ino %lld\n", path_.c_str(),
           static_cast<long long>(snapIno_), static_cast<long long>(recordIno_));
  return failedStep(5, err, rc);
}

Step CloneRestore::becomeParent() {
  traceLog("cloneFile: snap file %s\n", path_.c_str());
  const auto isParent = [&] {
    Inode active = openInode(handles.activeFsP, st_.st_ino);
    CloneAttr attr;
    return active && isClone(active.get(), &attr, nullptr) && attr.isParent();
  };
  if (!isParent()) {
    Inode active = openInode(handles.activeFsP, st_.st_ino);
    if (!active) return failedStep(6, errno);
    const int err = waitFor("kest_clone_snap", [&] { return kest_iclone_snap(active.get()); });
    if (err != 0 && !(err == EROFS && isParent())) {
      traceLog("cloneFile: cannot snap a parent file, path %s, depth %d, err %d\n", path_.c_str(),
               attr_.depth(), err);
      return failedStep(6, err);
    }
  }
  const int rc = recordCloneParentIno(path_, snapIno_);
  if (rc == 0) return {};
  const int err = errno;
  traceLog("cloneFile: cannot record parent ino change, path %s, ino %lld\n", path_.c_str(),
           static_cast<long long>(recordIno_));
  return failedStep(7, err, rc);
}

Step CloneRestore::restore() {
  if (getSnapPath(path_, true, &snapPath_, &snapIno_) != 0) {
    const int err = errno;
    traceLog("cloneFile: cannot get snap path %s\n", path_.c_str());
    return failedStep(11, err);
  }
  snap_ = openInode(handles.oldFsP, snapIno_);
  if (!snap_) return failedStep(11, errno);
  if (kest_istat(snap_.get(), &stat_) != 0) return failedStep(11, errno);
  // The other names of an inode that lives are linked later, to itself.
  const int kind = stat_.ia_nlink > 1 ? checkFile(snapIno_) : kKindOther;
  if (kind < 0) return failedStep(11, errno);
  if (kind == kKindSame) return {};
  if (Step step = lookAt(&existed_); !step) return step;
  if (!isClone(snap_.get(), &attr_, &attrSnap_)) return existed_ ? Step{} : failedStep(0, EINVAL);

  const bool from_data = restoredFromData(path_, attr_, attrSnap_);
  if (existed_) {
    traceLog("cloneFile: %s is exist.\n", path_.c_str());
    if (Step step = restoreXAttrs(); !step) return step;
  }
  if (!from_data) {
    bool unfinished = true;
    if (Step step = existed_ ? lookAtLeftover(&unfinished) : makeFromParent(); !step) return step;
    if (unfinished) {
      if (Step step = fillFromSnapshot(); !step) return step;
    }
  }
  if (attr_.isParent()) {
    if (Step step = becomeParent(); !step) return step;
  }
  const int rc = restoreAttr(path_, settings.phase);
  return rc == 0 ? Step{} : failedStep(42, errno, rc);
}

}  // namespace

int cloneFile(const std::string &path, uint64_t ino) {
  std::string place;
  if (int rc = getRealPath(path, &place); rc != 0) {
    const int err = errno;
    traceLog("cloneFile: path %s, ino %lld, exist %d, rc %d, code %d, err %d\n", path.c_str(),
             static_cast<long long>(ino), 0, rc, 11, err);
    errno = err;
    return rc;
  }
  CloneRestore clone(place, ino);
  const Step step = clone.restore();
  if (step) return 0;
  traceLog("cloneFile: path %s, ino %lld, exist %d, rc %d, code %d, err %d\n", place.c_str(),
           static_cast<long long>(ino), clone.existed(), step.rc, step.code, step.err);
  errno = step.err;
  return step.rc;
}
