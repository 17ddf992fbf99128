#include "worker/file_restore.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>

#include <cerrno>
#include <climits>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "object/attr_restore.h"
#include "object/flags.h"
#include "object/name_calls.h"
#include "object/open_object.h"
#include "object/paths.h"
#include "object/places.h"
#include "object/xattr_restore.h"
#include "records/side_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/clone_state.h"
#include "scan/same_file.h"
#include "worker/data_copy.h"

namespace {

// ---- restoreDelFile

enum DeletedStep : int {
  kOpenDeleted = 1,
  kMadeXAttrs = 3,
  kTruncate = 4,
  kCheckMade = 5,         // the object at the path was not made by this run for the inode
  kTruncateClearing = 7,  // the flags that forbid it could not be cleared
  kFindSnapPath = 8,
  kCopyData = 9,
  kReadLink = 11,
  kReadInode = 12,
  kCreate = 22,
  kMadeAttributes = 71,
  kCopyClearing = 72,  // as 7, for writing data
};

// Makes one object of the snapshot again at a path of the active fileset.
class DeletedFile {
 public:
  DeletedFile(const Record &record, OpenObject snap);
  Result restore();

 private:
  Result makeLink();
  Result makeSpecial();
  Result createFailed(const char *call, int err) const;
  Result livesElsewhere(bool *lives);
  Result makeRegular();
  Result fill();
  Result restoreXAttrs();
  Result restoreAttributes();
  Result sizeFile();
  Result copyData();
  int64_t snapSize() const { return snap_.facts.attr.ia_size; }

  const std::string &path_;
  const uint64_t ino_;
  Operation data_;  // the range of the whole file
  OpenObject snap_;
  OpenObject active_;        // set for a regular file once it exists
  bool atItsPlace_ = false;  // the snapshot has `ino_` at the same path
};

DeletedFile::DeletedFile(const Record &record, OpenObject snap)
    : path_(record.path), ino_(record.ino), data_(record.op), snap_(std::move(snap)) {
  if (data_.length == 0) data_.length = static_cast<uint64_t>(snapSize());
}

Result DeletedFile::createFailed(const char *call, int err) const {
  traceLog("restoreDelFile: create %s ino %lld ERROR syscall %s err %d\n", path_.c_str(),
           static_cast<long long>(ino_), call, err);
  return failed(kCreate, err);
}

// If a worker died after making a link or special file, the repeated record finds it and accepts it.
Result DeletedFile::makeLink() {
  std::string target(PATH_MAX, '\0');
  int64_t offset = 0;
  const int64_t length = kest_iread(snap_.get(), target.data(), PATH_MAX, &offset);
  if (length < 0) return failed(kReadLink);
  target.resize(static_cast<size_t>(length));
  traceLog("restoreDelFile:symlink, lnbuf %s, path %s\n", target.c_str(), path_.c_str());
  const Result made = makeSymlink(target, path_);
  std::string present;
  if (made || (made.err == EEXIST && readLinkTarget(path_, &present) && present == target)) return {};
  return createFailed("symlink", made.err);
}

Result DeletedFile::makeSpecial() {
  const mode_t mode = snap_.facts.attr.ia_mode;
  dev_t device = 0;
  if (S_ISCHR(mode) || S_ISBLK(mode)) {
    unsigned major_no = 0, minor_no = 0;
    if (kest_idevice(snap_.get(), &major_no, &minor_no) != 0) return failed(kReadInode);
    device = makedev(major_no, minor_no);
  }
  traceLog("restoreDelFile: create special file: ia_rdev %lx, mode %lx, devId %llx, path %s\n",
           static_cast<unsigned long>(snap_.facts.attr.ia_rdev), static_cast<unsigned long>(mode),
           static_cast<unsigned long long>(device), path_.c_str());
  const Result made = makeNode(path_, mode, device);
  struct stat st;
  if (made || (made.err == EEXIST && statPath(path_, &st) && (st.st_mode & S_IFMT) == (mode & S_IFMT) &&
               st.st_rdev == device))
    return {};
  return createFailed("symlink", made.err);
}

Result DeletedFile::restoreXAttrs() {
  if (settings.noXAttr) return {};
  const Result result =
      active_ ? restoreXAttrOf(snap_, active_, path_) : restoreXAttr(ino_, snap_.get(), path_);
  return result.at(kMadeXAttrs);
}

Result DeletedFile::restoreAttributes() {
  const Result result = active_ && atItsPlace_
                            ? restoreAttrOf(path_, snap_, active_, settings.phase, true)
                            : restoreAttr(path_, settings.phase);
  return result.at(kMadeAttributes);
}

Result DeletedFile::sizeFile() {
  if (active_.facts.attr.ia_size == snapSize()) return {};
  bool clearing_failed = false;
  if (Result r = truncatePath(path_, snapSize(), active_.get()->if_inode, &clearing_failed); !r)
    return failed(clearing_failed ? kTruncateClearing : kTruncate, r.err);
  return {};
}

// A clone with several names is listed under the first missing one. While its inode exists, phase 8
// links that name to it, so nothing has to be made.
Result DeletedFile::livesElsewhere(bool *lives) {
  *lives = false;
  bool clone = false;
  if (Result r = isClone(snap_.get(), &clone); !r) return failed(kReadInode, r.err);
  if (!clone) return {};
  if (snap_.facts.attr.ia_nlink <= 1) return {};
  FileKind kind = kKindOther;
  if (Result r = checkFile(ino_, &kind); !r) return failed(kReadInode, r.err);
  *lives = kind == kKindSame;
  return {};
}

// Creates the file, or opens it if a dead worker made it or phase 8 repeats its record.
Result DeletedFile::makeRegular() {
  constexpr int kMostAttempts = 100;  // users can create and remove the name meanwhile
  Result made;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    made = createFile(path_, snap_.facts, &active_);
    if (made || made.err != EEXIST) break;
    if (made = openAt(path_, &active_); made || made.err != ENOENT) break;
  }
  if (!made) return createFailed("open", made.err);
  // The name may have been taken by a user's file, which must not get this file's data.
  if (active_.type() != S_IFREG) return failed(kCheckMade, EEXIST);
  return isReplacement(active_, snap_) ? Result{} : failed(kCheckMade, ESTALE);
}

Result DeletedFile::fill() {
  if (settings.phase == kPhaseCreate) {
    SnapPlace place;
    if (Result r = getSnapPath(path_, &place); !r) {
      traceLog("restoreDelFile: cannot get snap path %s\n", path_.c_str());
      return failed(kFindSnapPath, r.err);
    }
    atItsPlace_ = place.ino == ino_;
  }
  // This must precede the data: the attributes include the flag that turns copy-on-write off, and btrfs
  // accepts that only for an empty file.
  if (Result r = restoreXAttrs(); !r) return r;
  // In phase 51 writing the data extends a shorter file.
  if (settings.phase == kPhaseLinks || active_.facts.attr.ia_size > snapSize()) {
    if (Result r = sizeFile(); !r) return r;
  }
  if (data_.length > 0) {
    if (Result r = copyData(); !r) return r;
  }
  return restoreAttributes();
}

Result DeletedFile::copyData() {
  bool clearing_failed = false;
  const Result copied = retryClearing(
      path_, "", [&] { return copyToActiveFile(snap_.get(), active_.get(), data_); }, &clearing_failed);
  if (copied) return {};
  if (clearing_failed) return copied.at(kCopyClearing);
  traceLog("restoreDelFile: failed to copy data, offset %ld length %ld\n",
           static_cast<long>(data_.offset), static_cast<long>(data_.length));
  return copied.at(kCopyData);
}

Result DeletedFile::restore() {
  const mode_t mode = snap_.facts.attr.ia_mode;
  if (!isRegular(mode)) {
    if (Result r = S_ISLNK(mode) ? makeLink() : makeSpecial(); !r) return r;
    if (Result r = restoreXAttrs(); !r) return r;
    return restoreAttributes();
  }
  if (settings.phase != kPhaseLinks) {
    bool lives = false;
    if (Result r = livesElsewhere(&lives); !r || lives) return r;
  }
  if (Result r = makeRegular(); !r) return r;
  return fill();
}

Result restoreDeleted(const Record &record) {
  OpenObject snap;
  if (Result r = openSnapshotObject(record.ino, record.path, &snap); !r) return r.at(kOpenDeleted);
  return DeletedFile(record, std::move(snap)).restore();
}

// ---- restoreDiffFile

enum SurvivorStep : int {
  kOpenSnapshot = 1,
  kXAttrs = 2,
  kOpenActive = 3,
  kCopyRange = 7,
  kListDirectory = 21,
  kAttributes = 91,
};

// Restores the attributes of a surviving object. If the path belongs to another object of the snapshot,
// the move home restores them instead. `active` is the object at the path, or null if it is another one
// now.
Result attributesOfSurvivor(const Record &record, const OpenObject &snap, OpenObject *active) {
  SnapPlace place;
  if (Result r = getSnapPath(record.path, &place); !r)
    return place.absent || r.err == ENOENT ? Result{} : failed(kAttributes, r.err);
  if (place.ino != record.ino) return {};
  const Result result = active != nullptr ? restoreAttrOf(record.path, snap, *active, settings.phase,
                                                          record.op.length > 0)
                                          : restoreAttr(record.path, settings.phase);
  return result.at(kAttributes);
}

Result restoreSurvivor(const Record &record) {
  const std::string &path = record.path;
  OpenObject snap, active;
  if (Result r = openSnapshotObject(record.ino, record.path, &snap); !r) return r.at(kOpenSnapshot);
  // Opened by identity, not by path, so the data reaches the file wherever it has been moved.
  const Result opened = openSameFile(snap, &active);
  if (!opened && opened.err != ENOENT) return opened.at(kOpenActive);
  struct stat st;
  const bool in_place = opened && statPath(path, &st) && st.st_ino == record.ino;
  if (!settings.noXAttr) {
    if (Result r =
            in_place ? restoreXAttrOf(snap, active, path) : restoreXAttr(record.ino, snap.get(), path);
        !r)
      return r.at(kXAttrs);
  }
  // Later phases still change the directory, so phase 6 restores its other attributes.
  if (snap.type() == S_IFDIR) return listNewDir(path, record.ino).at(kListDirectory);
  if (snap.type() == S_IFREG) {
    if (!opened) return opened.at(kOpenActive);
    const Result copied =
        retryClearing(path, "", [&] { return copyToActiveFile(snap.get(), active.get(), record.op); });
    if (!copied) return copied.at(kCopyRange);
  }
  return attributesOfSurvivor(record, snap, in_place ? &active : nullptr);
}

// ---- markUnfinished

constexpr int kModificationTime = 2;

bool restoresData(const Record &record) {
  return record.op.isRange(1);
}

// A user may have put another object in the place of the file, on which the step then failed.
bool isFileOfRecord(int fd, const Record &record) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  if (record.op.opCode == kOpRestoreDiffFile) return st.st_ino == record.ino;
  Inode snap;
  return openInode(handles.oldFsP, record.ino, &snap) && isReplacement(st, snap.get());
}

}  // namespace

Result restoreDelFile(const Record &record) {
  const Result result = restoreDeleted(record);
  if (!result) {
    traceLog("restoreDelFile: ino %lld, path %s, pass %d,rc %d, code %d, err %d\n",
             static_cast<long long>(record.ino), record.path.c_str(), settings.pass, result.rc,
             result.code, result.err);
  }
  return result;
}

Result restoreDiffFile(const Record &record) {
  const Result result = restoreSurvivor(record);
  if (!result) {
    traceLog("restoreDiffFile:ino %lld failed, path %s, pass %d, code %d, rc %d, err %d\n",
             static_cast<long long>(record.ino), record.path.c_str(), settings.pass, result.code,
             result.rc, result.err);
  }
  return result;
}

void markUnfinished(const Record &record) {
  if (!restoresData(record)) return;
  timespec now;
  // The present time differs from the snapshot's, so the next run finds the file in the difference.
  clock_gettime(CLOCK_REALTIME, &now);
  kest_timestruc64_t times[4] = {};
  times[1] = {now.tv_sec, static_cast<uint32_t>(now.tv_nsec)};
  const Result marked = retryClearing(record.path, "", [&]() -> Result {
    UniqueFd file;
    if (Result r = openObject(record.path, &file); !r) return r;
    if (!isFileOfRecord(file.get(), record)) return {};
    return called(kest_fset_times(file.get(), kModificationTime, times));
  });
  traceLog("markUnfinished: path %s, err %d\n", record.path.c_str(), marked.err);
}

void markIfOthersFailed(const Record &record) {
  struct stat st;
  if (restoresData(record) && statWorkFile(workPath(kFatalError), &st)) markUnfinished(record);
}
