#include "worker/link_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "messages/messages.h"
#include "object/attr_restore.h"
#include "object/clones.h"
#include "object/name_calls.h"
#include "object/paths.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/same_file.h"
#include "worker/delete_file.h"
#include "worker/file_restore.h"

namespace {

enum LinkStep : int {
  kRootPath = 1,
  kSnapRootPath = 2,
  kLookUpNames = 3,
  kNames = 4,      // no or too few names, or the object at one cannot be examined
  kClearName = 5,  // another object has the name and could not be removed
  kMakeFile = 6,   // or checking whether the inode is still the snapshot's file, or a clone
  kAddName = 7,
  kAttributes = 8,
  kOpenSnapshot = 10,
};

struct Name {
  std::string path;  // path in the active fileset
  bool exists = false;
  struct stat st {};
};

// The names of one inode and the object that carries them.
class LinkGroup {
 public:
  LinkGroup(uint64_t ino, kest_ifile_t *snap) : ino_(ino), snap_(snap) {}

  Result collectNames(const std::vector<std::string> &paths);
  Result restoreAll();
  // After restoreAll: returns true if the names lead to another inode than in the snapshot.
  bool wasMade() const { return target_ != nullptr && target_->st.st_ino != ino_; }

 private:
  static Result lookAt(Name &name);
  Result chooseTarget();
  Result madeAsClone(const Name &name, bool *made) const;
  Result restoreName(Name &name);
  Result clearName(const Name &name);
  Result addName(const Name &name);

  const uint64_t ino_;
  kest_ifile_t *const snap_;
  std::vector<Name> names_;
  Name *target_ = nullptr;
};

Result LinkGroup::lookAt(Name &name) {
  const Result looked = statPath(name.path, &name.st);
  name.exists = static_cast<bool>(looked);
  return looked.err == ENOENT ? Result{} : looked;
}

Result LinkGroup::collectNames(const std::vector<std::string> &paths) {
  for (const std::string &path : paths) {
    Name name;
    name.path = path;
    traceLog("linkFile: filePath %s\n", name.path.c_str());
    if (Result r = lookAt(name); !r) return failed(kNames, r.err);
    names_.push_back(std::move(name));
  }
  return {};
}

// Chooses the object that all names are linked to: the inode itself if one of its names has survived;
// else a clone or clone parent that phase 7 made at one of the names; else a file that an interrupted
// run left at one, which is restored once more.
Result LinkGroup::chooseTarget() {
  for (Name &name : names_) {
    if (!name.exists || name.st.st_ino != ino_) continue;
    FileKind kind = kKindOther;
    if (Result r = checkFile(ino_, &kind); !r) return failed(kMakeFile, r.err);
    if (kind == kKindSame) target_ = &name;
    break;
  }
  if (target_ != nullptr) return {};
  for (Name &name : names_) {
    if (!name.exists || !isRegular(name.st.st_mode) || !isRegular(snap_->if_mode)) continue;
    bool made = false;
    if (Result r = madeAsClone(name, &made); !r) return failed(kMakeFile, r.err);
    if (!made) return restoreName(name);
    target_ = &name;
    break;
  }
  return {};
}

// Sets *made if phase 7 made an object at the name, as a clone or clone parent.
Result LinkGroup::madeAsClone(const Name &name, bool *made) const {
  CloneAttr attr;
  CloneSnapAttr attr_snap;
  bool clone = false, from_data = false;
  *made = false;
  if (Result r = isClone(snap_, &clone, &attr, &attr_snap); !r || !clone) return r;
  if (!attr.isParent())
    if (Result r = restoredFromData(name.path, attr, attr_snap, &from_data); !r) return r;
  *made = !from_data;
  return {};
}

Result LinkGroup::restoreName(Name &name) {
  bool clone = false;
  if (Result r = isClone(snap_, &clone); !r) return failed(kMakeFile, r.err);
  Record whole{ino_, name.path, {}};
  whole.op = {kOpRestoreDelFile, 0, snap_->if_size, 0, clone};
  Result result = restoreDelFile(whole);
  if (result) {
    if (Result r = lookAt(name); !r) result = failed(kMakeFile, r.err);
  }
  if (!result) {
    traceLog("linkFile: cannot restore orignal file %s, ino %lld\n", name.path.c_str(),
             static_cast<long long>(ino_));
    return result.at(kMakeFile);
  }
  target_ = &name;
  return {};
}

// Removes another inode that has the name.
Result LinkGroup::clearName(const Name &name) {
  if (isDirectory(name.st.st_mode)) {
    traceLog("linkFile: a directory stands at %s\n", name.path.c_str());
    return failed(kClearName, EISDIR);
  }
  Record other{name.st.st_ino, name.path, {}};
  other.op.opCode = kOpDeleteFile;
  return deleteFile(other).at(kClearName);
}

Result LinkGroup::addName(const Name &name) {
  const std::string &from = target_->path;
  const Result linked = linkName(from, name.path, target_->st.st_ino);
  if (linked) return {};
  traceLog("linkFile: link %s to %s failed.\n", from.c_str(), name.path.c_str());
  return failed(kAddName, linked.err);
}

Result LinkGroup::restoreAll() {
  if (Result r = chooseTarget(); !r) return r;
  for (Name &name : names_) {
    if (name.exists && target_ != nullptr && name.st.st_ino == target_->st.st_ino) {
      traceLog("linkFile: file %s exist, nothing need to do.\n", name.path.c_str());
      continue;
    }
    if (name.exists) {
      if (Result r = clearName(name); !r) return r;
    }
    // Without a target the first name makes the file, to which the others are linked.
    if (Result r = target_ != nullptr ? addName(name) : restoreName(name); !r) return r;
  }
  if (target_ == nullptr) return {};
  return restoreAttr(target_->path, settings.phase).at(kAttributes);
}

// Finds the names of the inode in the snapshot, as paths of the active fileset. Sets *outside if it
// also had names outside the fileset.
Result lookUpNames(uint64_t ino, const kest_ifile_t *snap, std::vector<std::string> *paths,
                   bool *outside) {
  if (Result r = findInodePaths(handles.oldFsP, ino, handles.rootPath, paths); !r) {
    traceLog(r.err == ENOENT ? "linkFile: cannot get hard link path, ino %lld\n"
                             : "getParentPath: cannot find parent path, ino %lld\n",
             static_cast<long long>(ino));
    return failed(r.err == ENOENT ? kNames : kLookUpNames, r.err);
  }
  kest_iattr64_t attr;
  if (kest_istat(snap, &attr) != 0) return failed(kNames);
  *outside = static_cast<int64_t>(paths->size()) < attr.ia_nlink;
  // Where all names lie in the fileset, fewer names than links would silently lose a hard link.
  if (*outside && (paths->empty() || kest_names_outside(handles.activeFsP) != 1)) {
    traceLog("linkFile: cannot get hard link path, ino %lld\n", static_cast<long long>(ino));
    return failed(kNames, EIO);
  }
  return {};
}

Result restoreLinks(uint64_t ino) {
  if (handles.rootPath.empty()) {
    traceLog("linkFile: cannot get fileset root path\n");
    return failed(kRootPath, ENOENT);
  }
  if (handles.snapRootPath.empty()) {
    traceLog("linkFile: failed to get snap path. err %d\n", ENOENT);
    return failed(kSnapRootPath, ENOENT);
  }
  Inode snap;
  if (Result r = openInode(handles.oldFsP, ino, &snap); !r) return failed(kOpenSnapshot, r.err);
  std::vector<std::string> paths;
  bool outside = false;
  if (Result r = lookUpNames(ino, snap.get(), &paths, &outside); !r) return r;
  LinkGroup group(ino, snap.get());
  if (Result r = group.collectNames(paths); !r) return r;
  if (Result r = group.restoreAll(); !r) return r;
  if (outside && group.wasMade()) userMessage(Message::kNamesOutside, paths.front());
  return {};
}

}  // namespace

Result linkFile(const Record &record) {
  const Result result = restoreLinks(record.ino);
  if (!result) {
    traceLog("linkFile: path %s ,ino %lld, rc %d, code %d, error %d\n", record.path.c_str(),
             static_cast<long long>(record.ino), result.rc, result.code, result.err);
  }
  return result;
}
