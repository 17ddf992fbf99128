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
  kCheckMade = 5,  // the object at the path is none that this run made for the inode
  kOpenMade = 6,
  kTruncateClearing = 7,  // the flags that forbid it could not be cleared
  kFindSnapPath = 8,
  kCopyData = 9,
  kReadLink = 11,
  kReadInode = 12,
  kCreate = 22,
  kMadeAttributes = 71,
  kCopyClearing = 72,  // as 7, for writing data
};

// Making one object of the snapshot again at a path of the active fileset.
class DeletedFile {
 public:
  DeletedFile(const Record &record, Inode snap);
  Result restore();

 private:
  Result makeLink();
  Result makeSpecial();
  Result createFailed(const char *call, int err) const;
  Result livesElsewhere(bool *lives);
  Result makeRegular(struct stat *st);
  Result fill(const struct stat &st);
  Result restoreXAttrs();
  Result restoreAttributes();
  Result sizeFile(const struct stat &st);
  Result copyData(const struct stat &st);
  int64_t snapSize() const { return static_cast<int64_t>(snap_->if_size); }

  const std::string &path_;
  const uint64_t ino_;
  Operation data_;  // the range that is all of the file
  Inode snap_;
  Inode active_;             // a regular file, once it is there; empty where it cannot be opened
  bool atItsPlace_ = false;  // the snapshot is known to have `ino_` at the same path
};

DeletedFile::DeletedFile(const Record &record, Inode snap)
    : path_(record.path), ino_(record.ino), data_(record.op), snap_(std::move(snap)) {
  if (data_.length == 0) data_.length = snap_->if_size;
}

Result DeletedFile::createFailed(const char *call, int err) const {
  traceLog("restoreDelFile: create %s ino %lld ERROR syscall %s err %d\n", path_.c_str(),
           static_cast<long long>(ino_), call, err);
  return failed(kCreate, err);
}

// A link or special file that a lost worker has made counts as made.
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
  kest_iattr64_t attr;
  if (kest_istat(snap_.get(), &attr) != 0) return failed(kReadInode);
  const mode_t mode = snap_->if_mode;
  dev_t device = 0;
  if (S_ISCHR(mode) || S_ISBLK(mode)) {
    unsigned major_no = 0, minor_no = 0;
    if (kest_idevice(snap_.get(), &major_no, &minor_no) != 0) return failed(kReadInode);
    device = makedev(major_no, minor_no);
  }
  traceLog("restoreDelFile: create special file: ia_rdev %lx, mode %lx, devId %llx, path %s\n",
           static_cast<unsigned long>(attr.ia_rdev), static_cast<unsigned long>(mode),
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
  const Result result = active_ ? restoreXAttrOf(snap_.get(), active_.get(), path_)
                                : restoreXAttr(ino_, snap_.get(), path_);
  return result.at(kMadeXAttrs);
}

Result DeletedFile::restoreAttributes() {
  const Result result = active_ && atItsPlace_
                            ? restoreAttrOf(path_, snap_.get(), active_.get(), settings.phase)
                            : restoreAttr(path_, settings.phase);
  return result.at(kMadeAttributes);
}

Result DeletedFile::sizeFile(const struct stat &st) {
  if (st.st_size == snapSize()) return {};
  bool clearing_failed = false;
  if (Result r = truncatePath(path_, snapSize(), st.st_ino, &clearing_failed); !r)
    return failed(clearing_failed ? kTruncateClearing : kTruncate, r.err);
  return {};
}

// A clone with several names is listed for the first that was missing. While the inode exists, phase 8
// links its names to it.
Result DeletedFile::livesElsewhere(bool *lives) {
  *lives = false;
  // A file whose clone attributes cannot be read is made as an ordinary one. isClone has recorded that
  // as a fatal error, so the run ends with 1.
  bool clone = false;
  if (!isClone(snap_.get(), &clone) || !clone) return {};
  kest_iattr64_t attr;
  if (kest_istat(snap_.get(), &attr) != 0) return failed(kReadInode);
  if (attr.ia_nlink <= 1) return {};
  FileKind kind = kKindOther;
  if (Result r = checkFile(ino_, &kind); !r) return failed(kReadInode, r.err);
  *lives = kind == kKindSame;
  return {};
}

// The file may be there already: a lost worker made it, or phase 8 repeats its record.
Result DeletedFile::makeRegular(struct stat *st) {
  UniqueFd fd;
  bool created = false;
  if (Result r = openOrMakeFile(path_, &fd, &created); !r) return createFailed("open", r.err);
  if (fstat(fd.get(), st) != 0) return failed(kCheckMade);
  if (!S_ISREG(st->st_mode)) return failed(kCheckMade, EEXIST);
  if (!isReplacement(*st, snap_.get())) return failed(kCheckMade, ESTALE);
  const Result opened = created ? takeInode(handles.activeFsP, &fd, &active_)
                                : openInode(handles.activeFsP, st->st_ino, &active_, 1);
  // A flag can forbid opening an older file: copyData clears it and tries again.
  return created ? opened.at(kOpenMade) : Result{};
}

Result DeletedFile::fill(const struct stat &st) {
  if (settings.phase == kPhaseCreate) {
    SnapPlace place;
    if (Result r = getSnapPath(path_, &place); !r) {
      traceLog("restoreDelFile: cannot get snap path %s\n", path_.c_str());
      return failed(kFindSnapPath, r.err);
    }
    atItsPlace_ = place.ino == ino_;
  }
  // Before any data: they include the attribute that turns copy-on-write off, which only an empty file
  // accepts.
  if (Result r = restoreXAttrs(); !r) return r;
  // In phase 51 the data makes a shorter file long enough.
  if (settings.phase == kPhaseLinks || st.st_size > snapSize()) {
    if (Result r = sizeFile(st); !r) return r;
  }
  if (data_.length > 0) {
    if (Result r = copyData(st); !r) return r;
  }
  return restoreAttributes();
}

Result DeletedFile::copyData(const struct stat &st) {
  bool clearing_failed = false;
  const Result copied = retryClearing(
      path_, "",
      [&] {
        if (!active_) {
          if (Result r = openInode(handles.activeFsP, st.st_ino, &active_, 1); !r) return r;
        }
        return copyToActiveFile(snap_.get(), active_.get(), data_);
      },
      &clearing_failed);
  if (copied) return {};
  if (!active_) return copied.at(kOpenMade);
  if (clearing_failed) return copied.at(kCopyClearing);
  traceLog("restoreDelFile: failed to copy data, offset %ld length %ld\n",
           static_cast<long>(data_.offset), static_cast<long>(data_.length));
  return copied.at(kCopyData);
}

Result DeletedFile::restore() {
  const mode_t mode = snap_->if_mode;
  if (!isRegular(mode)) {
    if (Result r = S_ISLNK(mode) ? makeLink() : makeSpecial(); !r) return r;
    if (Result r = restoreXAttrs(); !r) return r;
    return restoreAttributes();
  }
  if (settings.phase != kPhaseLinks) {
    bool lives = false;
    if (Result r = livesElsewhere(&lives); !r || lives) return r;
  }
  struct stat st;
  if (Result r = makeRegular(&st); !r) return r;
  return fill(st);
}

Result restoreDeleted(const Record &record) {
  Inode snap;
  if (Result r = openInode(handles.oldFsP, record.ino, &snap); !r) return r.at(kOpenDeleted);
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

// Where the path belongs to another object of the snapshot, the move back restores the attributes.
// `active`: the object at the path; null: it is another one by now.
Result attributesOfSurvivor(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active) {
  SnapPlace place;
  if (Result r = getSnapPath(path, &place); !r)
    return place.absent || r.err == ENOENT ? Result{} : failed(kAttributes, r.err);
  if (place.ino != snap->if_inode) return {};
  const Result result = active != nullptr ? restoreAttrOf(path, snap, active, settings.phase)
                                          : restoreAttr(path, settings.phase);
  return result.at(kAttributes);
}

Result restoreSurvivor(const Record &record) {
  const std::string &path = record.path;
  Inode snap, active;
  if (Result r = openInode(handles.oldFsP, record.ino, &snap); !r) return r.at(kOpenSnapshot);
  const Result opened = openInode(handles.activeFsP, record.ino, &active);
  struct stat st;
  const bool in_place = opened && statPath(path, &st) && st.st_ino == record.ino;
  if (!settings.noXAttr) {
    if (Result r = in_place ? restoreXAttrOf(snap.get(), active.get(), path)
                            : restoreXAttr(record.ino, snap.get(), path);
        !r)
      return r.at(kXAttrs);
  }
  if (isDirectory(snap->if_mode)) return listNewDir(path, record.ino).at(kListDirectory);
  if (isRegular(snap->if_mode)) {
    if (!opened) return opened.at(kOpenActive);
    const Result copied =
        retryClearing(path, "", [&] { return copyToActiveFile(snap.get(), active.get(), record.op); });
    if (!copied) return copied.at(kCopyRange);
  }
  return attributesOfSurvivor(path, snap.get(), in_place ? active.get() : nullptr);
}

// ---- markUnfinished

constexpr int kModificationTime = 2;

bool restoresData(const Record &record) {
  return record.op.isRange(1);
}

// Users may have put the object on which the step failed in the file's place.
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
