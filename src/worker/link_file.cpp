#include "worker/link_file.h"

#include <cerrno>
#include <vector>

#include "object/attr_restore.h"
#include "object/clear_flags.h"
#include "object/clone_origin.h"
#include "object/object_stat.h"
#include "object/step.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/same_file.h"
#include "worker/delete_file.h"
#include "worker/file_restore.h"
#include "worker/inode_paths.h"

namespace {

struct Name {
  std::string path;  // active path
  bool exists = false;
  struct stat st {};
};

// The names of one inode and the object that carries them.
class LinkGroup {
 public:
  LinkGroup(uint64_t ino, kest_ifile_t *snap) : ino_(ino), snap_(snap) {}

  Step collectNames(const std::vector<std::string> &paths);
  Step restoreAll();

 private:
  Step chooseTarget();
  Step restoreName(Name &name);
  Step linkName(Name &name);
  int lookAt(Name &name);
  bool madeAsClone(const Name &name) const;

  uint64_t ino_;
  kest_ifile_t *snap_;
  std::vector<Name> names_;
  Name *target_ = nullptr;
};

int LinkGroup::lookAt(Name &name) {
  name.exists = statPath(name.path, &name.st) == 0;
  return name.exists || errno == ENOENT ? 0 : -1;
}

Step LinkGroup::collectNames(const std::vector<std::string> &paths) {
  for (const std::string &path : paths) {
    Name name;
    name.path = path;
    traceLog("linkFile: filePath %s\n", name.path.c_str());
    if (lookAt(name) != 0) return failedStep(4, errno);
    names_.push_back(std::move(name));
  }
  return {};
}

// The inode itself, where a name of it has survived; else a clone or clone parent that has just been
// made at one of the names, as it is, or a file that an interrupted run of this record has left there,
// restored once more.
Step LinkGroup::chooseTarget() {
  for (Name &name : names_) {
    if (!name.exists || name.st.st_ino != ino_) continue;
    const int kind = checkFile(ino_);
    if (kind < 0) return failedStep(6, errno);
    if (kind == kKindSame) target_ = &name;
    break;
  }
  if (target_ != nullptr) return {};
  for (Name &name : names_) {
    if (!name.exists || !isRegular(name.st.st_mode) || !isRegular(snap_->if_mode)) continue;
    if (!madeAsClone(name)) return restoreName(name);
    target_ = &name;
    break;
  }
  return {};
}

bool LinkGroup::madeAsClone(const Name &name) const {
  CloneAttr attr;
  CloneSnapAttr attr_snap;
  return isClone(snap_, &attr, &attr_snap) &&
         (attr.isParent() || !restoredFromData(name.path, attr, attr_snap));
}

Step LinkGroup::restoreName(Name &name) {
  int rc = restoreDelFile(name.path, ino_, 0, snap_->if_size, 0, isClone(snap_, nullptr, nullptr));
  if (rc == 0 && lookAt(name) != 0) rc = -1;
  if (rc != 0) {
    const int err = errno;
    traceLog("linkFile: cannot restore orignal file %s, ino %lld\n", name.path.c_str(),
             static_cast<long long>(ino_));
    return failedStep(6, err, rc);
  }
  target_ = &name;
  return {};
}

Step LinkGroup::linkName(Name &name) {
  const std::string &from = target_->path;
  const int err = retryClearing(name.path, from, [&] {
    return kest_link(handles.activeFsP, from.c_str(), name.path.c_str(), target_->st.st_ino);
  });
  if (err == 0) return {};
  traceLog("linkFile: link %s to %s failed.\n", from.c_str(), name.path.c_str());
  return failedStep(7, err);
}

Step LinkGroup::restoreAll() {
  if (Step step = chooseTarget(); !step) return step;
  for (Name &name : names_) {
    if (name.exists && target_ != nullptr && name.st.st_ino == target_->st.st_ino) {
      traceLog("linkFile: file %s exist, nothing need to do.\n", name.path.c_str());
      continue;
    }
    if (name.exists) {
      if (isDirectory(name.st.st_mode)) {
        traceLog("linkFile: a directory stands at %s\n", name.path.c_str());
        return failedStep(5, EISDIR);
      }
      if (int rc = deleteFile(name.path, name.st.st_ino); rc != 0) return failedStep(5, errno, rc);
    }
    const Step step = target_ != nullptr ? linkName(name) : restoreName(name);
    if (!step) return step;
  }
  if (target_ == nullptr) return {};
  const int rc = restoreAttr(target_->path, settings.phase);
  return rc == 0 ? Step{} : failedStep(8, errno, rc);
}

// The names that the inode has in the snapshot, as paths of the active fileset.
Step lookUpNames(uint64_t ino, const kest_ifile_t *snap, std::vector<std::string> *paths) {
  if (findInodePaths(handles.oldFsP, ino, handles.rootPath, paths) != 0) {
    const int err = errno;
    traceLog(err == ENOENT ? "linkFile: cannot get hard link path, ino %lld\n"
                           : "getParentPath: cannot find parent path, ino %lld\n",
             static_cast<long long>(ino));
    return failedStep(err == ENOENT ? 4 : 3, err);
  }
  kest_iattr64_t attr;
  if (kest_istat(snap, &attr) != 0) return failedStep(4, errno);
  if (static_cast<int64_t>(paths->size()) < attr.ia_nlink) {
    traceLog("linkFile: cannot get hard link path, ino %lld\n", static_cast<long long>(ino));
    return failedStep(4, EIO);
  }
  return {};
}

Step restoreLinks(uint64_t ino) {
  if (handles.rootPath.empty()) {
    traceLog("linkFile: cannot get fileset root path\n");
    return failedStep(1, ENOENT);
  }
  if (handles.snapRootPath.empty()) {
    traceLog("linkFile: failed to get snap path. err %d\n", ENOENT);
    return failedStep(2, ENOENT);
  }
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return failedStep(10, errno);
  std::vector<std::string> paths;
  if (Step step = lookUpNames(ino, snap.get(), &paths); !step) return step;
  LinkGroup group(ino, snap.get());
  const Step step = group.collectNames(paths);
  return !step ? step : group.restoreAll();
}

}  // namespace

int linkFile(const std::string &path, uint64_t ino) {
  const Step step = restoreLinks(ino);
  if (step) return 0;
  traceLog("linkFile: path %s ,ino %lld, rc %d, code %d, error %d\n", path.c_str(),
           static_cast<long long>(ino), step.rc, step.code, step.err);
  errno = step.err;
  return step.rc;
}
