#include "worker/clone_restore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "object/attr_restore.h"
#include "object/clones.h"
#include "object/flags.h"
#include "object/name_calls.h"
#include "object/paths.h"
#include "object/places.h"
#include "object/xattr_restore.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/same_file.h"
#include "worker/busy_wait.h"
#include "worker/clone_parent.h"
#include "worker/data_copy.h"

namespace {

constexpr int64_t kChunk = 64 * kBlock;

// ---- restoreCloneDelta: the data by which a clone differs from its parent

enum DeltaStep : int {
  kOpenClone = 3,
  kTruncate = 4,
  kTruncateClearing = 5,  // the flags that forbid it could not be cleared
  kShareOrCopy = 6,
};

constexpr int kNoScan = 191;  // not an errno of the system, but known from trace logs

// Reads [offset, offset + length), or up to the end of the file. *done receives the number of bytes.
Result readRange(kest_ifile_t *file, std::vector<char> &buffer, int64_t offset, int64_t length,
                 int64_t *done) {
  for (*done = 0; *done < length;) {
    int64_t position = offset + *done;
    const int64_t got = kest_iread(file, buffer.data() + *done, length - *done, &position);
    if (got < 0) return failedErrno(kShareOrCopy);
    if (got == 0) break;
    *done += got;
  }
  return {};
}

Result writeRange(kest_ifile_t *to, const char *data, int64_t size, int64_t offset, bool hole) {
  errno = 0;
  return kest_iwritex(to, data, size, offset, hole) == size ? Result{} : failedErrno(kShareOrCopy);
}

// Writes the blocks of one data range that differ.
Result copyDifferingBlocks(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length) {
  std::vector<char> wanted(kChunk), present(kChunk);
  for (const int64_t end = offset + length; offset < end;) {
    const int64_t chunk = std::min(kChunk, end - offset);
    int64_t read = 0, have = 0;
    if (Result r = readRange(from, wanted, offset, chunk, &read); !r) return r;
    if (read != chunk) return failedErrno(kShareOrCopy, EIO);
    if (Result r = readRange(to, present, offset, chunk, &have); !r) return r;
    for (int64_t at = 0; at < chunk; at += kBlock) {
      const int64_t size = std::min(kBlock, chunk - at);
      const char *block = wanted.data() + at;
      if (at + size <= have && memcmp(block, present.data() + at, static_cast<size_t>(size)) == 0)
        continue;
      if (Result r = writeRange(to, block, size, offset + at, false); !r) return r;
    }
    offset += chunk;
  }
  return {};
}

// Copies the snapshot's clone from `offset` on; its holes become holes.
Result copyDifferences(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t size) {
  if (handles.iscanFromP == nullptr) return failedErrno(kShareOrCopy, kNoScan);
  while (offset < size) {
    int hole = 0;
    errno = 0;
    const int64_t length = kest_ireadx(from, handles.iscanFromP, nullptr, 0, &offset, size, &hole);
    if (length < 0) return failedErrno(kShareOrCopy);
    if (length == 0) return failedErrno(kShareOrCopy, EIO);  // it ends before its size
    if (Result r = hole ? writeRange(to, nullptr, length, offset, true)
                        : copyDifferingBlocks(from, to, offset, length);
        !r)
      return r;
    offset += length;
  }
  return {};
}

Result fillClone(const std::string &path, kest_ifile_t *snap, uint64_t ino) {
  Inode active;
  if (Result r = openInode(handles.activeFsP, ino, &active); !r) return failed(kOpenClone, r.err);
  const int64_t size = static_cast<int64_t>(snap->if_size);
  // Sharing can extend a file but not shorten it.
  if (size < static_cast<int64_t>(active->if_size)) {
    bool clearing_failed = false;
    if (Result r = truncatePath(path, size, ino, &clearing_failed); !r)
      return failed(clearing_failed ? kTruncateClearing : kTruncate, r.err);
  }
  if (size == 0) return {};
  const Result filled = retryClearing(path, "", [&] {
    int64_t offset = 0, length = size;
    const Result shared = shareRange(snap, active.get(), &offset, &length);
    return shared && length > 0 ? copyDifferences(snap, active.get(), offset, size) : shared;
  });
  return filled ? Result{} : failed(kShareOrCopy, filled.err);
}

// Gives the new clone `ino` at `path` the size and data of the snapshot's clone, which is open as
// `snap`. Shares all blocks with that file. Blocks that it shares with its parent are then also shared
// with the present parent, which holds the same blocks. If the file system refuses to share, writes
// only the blocks that differ.
Result restoreCloneDelta(const std::string &path, kest_ifile_t *snap, uint64_t ino) {
  const Result result = fillClone(path, snap, ino);
  if (!result) {
    traceLog("restoreCloneDelta:ino %lld failed, path %s, pass %d, code %d, rc %d, err %d\n",
             static_cast<long long>(ino), path.c_str(), settings.pass, result.code, result.rc,
             result.err);
  }
  return result;
}

// ---- cloneFile

enum CloneStep : int {
  kNoClone = 0,  // the snapshot's file is no clone, and nothing exists at the path
  kFindParent = 3,
  kMakeClone = 4,  // or another object has taken the name
  kFill = 5,
  kBecomeParent = 6,
  kRecordParent = 7,
  kXAttrs = 9,
  kFindSnapshotFile = 11,
  kLook = 41,
  kAttributes = 42,
};

class CloneRestore {
 public:
  CloneRestore(const std::string &path, uint64_t record_ino) : path_(path), recordIno_(record_ino) {}

  Result restore();
  bool existed() const { return existed_; }

 private:
  Result findSnapshotFile(bool *lives);
  Result lookAt(bool *exists);
  Result lookAtLeftover(bool *unfinished);
  Result make();
  Result makeFromParent();
  Result fillFromSnapshot();
  static Result isParentNow(kest_ifile_t *active, bool *parent);
  Result becomeParent();
  Result restoreXAttrs();
  Result waitFor(const char *name, const std::function<Result()> &call);

  const std::string &path_;
  const uint64_t recordIno_;
  SnapPlace place_;
  Inode snap_;
  CloneAttr attr_;
  CloneSnapAttr attrSnap_;
  kest_iattr64_t stat_{};  // attributes of the snapshot's inode
  struct stat st_ {};
  bool existed_ = false;
};

// Runs `call` and clears flags that forbid it. Waits while another process works on the file (EBUSY).
Result CloneRestore::waitFor(const char *name, const std::function<Result()> &call) {
  for (int waits = 0;; ++waits) {
    const Result result = retryClearing(path_, "", call);
    if (result.err != EBUSY || waits > kMostWaits) return result;
    traceLog("cloneFile: %s wait %d\n", name, waits);
    flushTraceLines();
    usleep(kWaitMicroseconds);
  }
}

Result CloneRestore::lookAt(bool *exists) {
  const Result looked = statPath(path_, &st_);
  *exists = static_cast<bool>(looked);
  if (!looked) return looked.err == ENOENT ? Result{} : failed(kLook, looked.err);
  return isInodeOrReplacement(st_, place_.ino, stat_) ? Result{} : failed(kLook, ESTALE);
}

Result CloneRestore::restoreXAttrs() {
  if (settings.noXAttr) return {};
  return restoreXAttr(place_.ino, snap_.get(), path_).at(kXAttrs);
}

// Checks that the object at the path is the clone that a worker had begun, or finished, before it died.
Result CloneRestore::lookAtLeftover(bool *unfinished) {
  Inode active;
  CloneAttr attr;
  bool clone = false;
  if (!openInode(handles.activeFsP, st_.st_ino, &active)) return failed(kMakeClone, EEXIST);
  if (Result r = isClone(active.get(), &clone, &attr); !r) return failed(kMakeClone, r.err);
  if (!clone) return failed(kMakeClone, EEXIST);
  *unfinished = !attr.isParent();
  return {};
}

Result CloneRestore::makeFromParent() {
  std::string parent_path;
  Inode parent;
  const uint32_t snap_id = attr_.parentInSnapshot() ? attrSnap_.snapId() : 0;
  if (Result r = getParentPath(attr_.parentIno(), snap_id, &parent_path, &parent); !r) {
    traceLog("cloneFile: cannot get parent path, path %s, ino %lld\n", path_.c_str(),
             static_cast<long long>(recordIno_));
    return r.at(kFindParent);
  }
  const Result made = waitFor("kest_clone_copy", [&] {
    return called(kest_iclone_copy(parent.get(), handles.activeFsP, path_.c_str()));
  });
  if (!made && made.err != EEXIST) {
    traceLog("cloneFile: cannot clone file, fileSnapPathP %s, parent path %s, path %s, err %d\n",
             place_.path.c_str(), parent_path.c_str(), path_.c_str(), made.err);
    return failed(kMakeClone, made.err);
  }
  bool exists = false;
  Result result = lookAt(&exists);
  // If another object took the name meanwhile, it must be a clone that another worker makes.
  bool unfinished = true;
  if (result && exists && !made) result = lookAtLeftover(&unfinished);
  if (result && exists) return restoreXAttrs();
  traceLog("cloneFile: cannot get new ino of path %s, err %d\n", path_.c_str(),
           result ? ENOENT : result.err);
  return result ? failed(kLook, ENOENT) : result;
}

Result CloneRestore::fillFromSnapshot() {
  const Result result = restoreCloneDelta(path_, snap_.get(), st_.st_ino);
  if (result) return {};
  traceLog("cloneFile: restore clone delta failed, path %s, snapIno %lld ino %lld\n", path_.c_str(),
           static_cast<long long>(place_.ino), static_cast<long long>(recordIno_));
  return result.at(kFill);
}

Result CloneRestore::isParentNow(kest_ifile_t *active, bool *parent) {
  CloneAttr attr;
  bool clone = false;
  if (Result r = isClone(active, &clone, &attr); !r) return failed(kBecomeParent, r.err);
  *parent = clone && attr.isParent();
  return {};
}

Result CloneRestore::becomeParent() {
  traceLog("cloneFile: snap file %s\n", path_.c_str());
  Inode active;
  if (Result r = openInode(handles.activeFsP, st_.st_ino, &active); !r)
    return failed(kBecomeParent, r.err);
  bool parent = false;
  if (Result r = isParentNow(active.get(), &parent); !r) return r;
  if (!parent) {
    // Set the wrong time before the file becomes a parent: if the run dies before the surviving clones
    // know the new number, the next run must find a difference (see unsettledTime).
    const kest_timestruc64_t times[4] = {{}, unsettledTime(stat_.ia_mtime), {}, {}};
    const Result snapped = waitFor("kest_clone_snap", [&] {
      const Result held = called(kest_iset_times(active.get(), KEST_MODIFICATION_TIME, times));
      return held ? called(kest_iclone_snap(active.get())) : held;
    });
    // Another worker may have made it a parent meanwhile; parents are read-only.
    if (snapped.err == EROFS)
      if (Result r = isParentNow(active.get(), &parent); !r) return r;
    if (!snapped && !parent) {
      traceLog("cloneFile: cannot snap a parent file, path %s, depth %d, err %d\n", path_.c_str(),
               attr_.depth(), snapped.err);
      return failed(kBecomeParent, snapped.err);
    }
  }
  const Result recorded = recordCloneParentIno(path_, place_.ino);
  if (recorded) return {};
  traceLog("cloneFile: cannot record parent ino change, path %s, ino %lld\n", path_.c_str(),
           static_cast<long long>(recordIno_));
  return recorded.at(kRecordParent);
}

// Opens the snapshot's file. *lives: the inode is still the snapshot's file, so nothing has to be made;
// phase 8 links its other names to it.
Result CloneRestore::findSnapshotFile(bool *lives) {
  if (Result r = getSnapPath(path_, &place_); !r) {
    traceLog("cloneFile: cannot get snap path %s\n", path_.c_str());
    return failed(kFindSnapshotFile, r.err);
  }
  if (Result r = openInode(handles.oldFsP, place_.ino, &snap_); !r)
    return failed(kFindSnapshotFile, r.err);
  if (kest_istat(snap_.get(), &stat_) != 0) return failed(kFindSnapshotFile);
  *lives = false;
  if (stat_.ia_nlink <= 1) return {};
  FileKind kind = kKindOther;
  if (Result r = checkFile(place_.ino, &kind); !r) return failed(kFindSnapshotFile, r.err);
  *lives = kind == kKindSame;
  return {};
}

// Makes the clone with its data. If it exists already, restores its extended attributes, too.
Result CloneRestore::make() {
  bool from_data = false;
  if (Result r = restoredFromData(path_, attr_, attrSnap_, &from_data); !r)
    return failed(kFindParent, r.err);
  if (existed_) {
    traceLog("cloneFile: %s is exist.\n", path_.c_str());
    if (Result r = restoreXAttrs(); !r) return r;
  }
  if (from_data) return {};
  bool unfinished = true;
  if (Result r = existed_ ? lookAtLeftover(&unfinished) : makeFromParent(); !r) return r;
  return unfinished ? fillFromSnapshot() : Result{};
}

Result CloneRestore::restore() {
  bool lives = false;
  if (Result r = findSnapshotFile(&lives); !r || lives) return r;
  if (Result r = lookAt(&existed_); !r) return r;
  bool clone = false;
  if (Result r = isClone(snap_.get(), &clone, &attr_, &attrSnap_); !r)
    return failed(kFindSnapshotFile, r.err);
  if (!clone) return existed_ ? Result{} : failed(kNoClone, EINVAL);
  if (Result r = make(); !r) return r;
  if (attr_.isParent()) {
    if (Result r = becomeParent(); !r) return r;
  }
  return restoreAttr(path_, settings.phase).at(kAttributes);
}

}  // namespace

Result cloneFile(const Record &record) {
  std::string path = record.path, place;
  bool existed = false;
  Result result = getRealPath(record.path, &place).at(kFindSnapshotFile);
  if (result) {
    path = place;
    CloneRestore clone(place, record.ino);
    result = clone.restore();
    existed = clone.existed();
  }
  if (!result) {
    traceLog("cloneFile: path %s, ino %lld, exist %d, rc %d, code %d, err %d\n", path.c_str(),
             static_cast<long long>(record.ino), existed, result.rc, result.code, result.err);
  }
  return result;
}
