#include "worker/file_restore.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <cerrno>
#include <climits>
#include <vector>

#include "object/attr_restore.h"
#include "object/clear_flags.h"
#include "object/identity.h"
#include "object/new_dir_list.h"
#include "object/object_stat.h"
#include "object/snap_path.h"
#include "object/step.h"
#include "object/temp_place.h"
#include "object/xattr_restore.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/clone_state.h"
#include "scan/same_file.h"
#include "worker/data_copy.h"

namespace {

struct Range {
  int64_t offset;
  int64_t length;
  int32_t holeFound;
  bool clone;  // the file is a clone or a clone parent
};

// Making one object of the snapshot again at a path of the active fileset.
class DeletedFile {
 public:
  DeletedFile(const std::string &path, uint64_t ino, Inode snap)
      : path_(path), ino_(ino), snap_(std::move(snap)) {}

  Step restore(const Range &range);

 private:
  bool phaseMakes() const { return settings.phase == kPhaseCreate || settings.phase == kPhaseLinks; }
  int makeRegular(Descriptor *fd, bool *created);
  Step makeLink();
  Step makeSpecial();
  Step createFailed(const char *call, int err) const;
  Step restoreXAttrs();
  Step restoreAttributes();
  Step sizeFile(const struct stat &st);
  Step create(const struct stat &st, const Range &range);
  Step lookIfAlive(bool *lives);
  Step copyData(const struct stat &st, const Range &range);
  int64_t snapSize() const { return static_cast<int64_t>(snap_->if_size); }

  const std::string &path_;
  const uint64_t ino_;
  Inode snap_;
  Inode active_;             // a regular file, once it is there; empty where it cannot be opened
  bool atItsPlace_ = false;  // the snapshot is known to have `ino_` at the same path
};

Step DeletedFile::createFailed(const char *call, int err) const {
  traceLog("restoreDelFile: create %s ino %lld ERROR syscall %s err %d\n", path_.c_str(),
           static_cast<long long>(ino_), call, err);
  return failedStep(22, err);
}

int DeletedFile::makeRegular(Descriptor *fd, bool *created) {
  // Root's until its owner is set: with the mode it is to have, somebody's program would be root's for
  // a moment, or for good where the worker dies.
  constexpr mode_t kOwnersAlone = 0600;
  // Never waits for the other end of a FIFO that took the name.
  const int looking = O_RDONLY | O_NONBLOCK | (phaseMakes() ? O_CREAT : 0);
  constexpr int kMaking = O_RDWR | O_NONBLOCK | O_CREAT | O_EXCL;
  return retryClearing(path_, "", [&] {
    const std::string path = linkFree(path_);
    *created = false;
    if (phaseMakes()) {
      *fd = Descriptor(kest_open_file(handles.activeFsP, path.c_str(), kMaking, kOwnersAlone));
      *created = static_cast<bool>(*fd);
      if (*created || errno != EEXIST) return *created ? 0 : -1;
    }
    *fd = Descriptor(kest_open_file(handles.activeFsP, path.c_str(), looking, kOwnersAlone));
    return *fd ? 0 : -1;
  });
}

// A link or special file that a lost worker has made counts as made.
Step DeletedFile::makeLink() {
  std::vector<char> buffer(PATH_MAX + 1);
  int64_t offset = 0;
  const int64_t length = kest_iread(snap_.get(), buffer.data(), PATH_MAX, &offset);
  if (length < 0) return failedStep(11, errno);
  const std::string target(buffer.data(), static_cast<size_t>(length));
  traceLog("restoreDelFile:symlink, lnbuf %s, path %s\n", target.c_str(), path_.c_str());
  const int err = retryClearing(path_, "", [&] {
    return kest_symlink(handles.activeFsP, target.c_str(), linkFree(path_).c_str());
  });
  std::string there;
  if (err == EEXIST && readLinkTarget(path_, &there) == 0 && there == target) return {};
  return err == 0 ? Step{} : createFailed("symlink", err);
}

Step DeletedFile::makeSpecial() {
  kest_iattr64_t attr;
  if (kest_istat(snap_.get(), &attr) != 0) return failedStep(12, errno);
  const mode_t mode = snap_->if_mode;
  dev_t device = 0;
  if (S_ISCHR(mode) || S_ISBLK(mode)) {
    unsigned major_no = 0, minor_no = 0;
    if (kest_idevice(snap_.get(), &major_no, &minor_no) != 0) return failedStep(12, errno);
    device = makedev(major_no, minor_no);
  }
  traceLog("restoreDelFile: create special file: ia_rdev %lx, mode %lx, devId %llx, path %s\n",
           static_cast<unsigned long>(attr.ia_rdev), static_cast<unsigned long>(mode),
           static_cast<unsigned long long>(device), path_.c_str());
  const int err = retryClearing(
      path_, "", [&] { return kest_mknod(handles.activeFsP, linkFree(path_).c_str(), mode, device); });
  struct stat st;
  if (err == EEXIST && statPath(path_, &st) == 0 && (st.st_mode & S_IFMT) == (mode & S_IFMT) &&
      st.st_rdev == device)
    return {};
  return err == 0 ? Step{} : createFailed("symlink", err);
}

Step DeletedFile::restoreXAttrs() {
  if (settings.noXAttr) return {};
  const int rc = active_ ? restoreXAttrOf(snap_.get(), active_.get(), path_)
                         : restoreXAttr(ino_, snap_.get(), &path_);
  return rc == 0 ? Step{} : failedStep(3, errno, rc);
}

Step DeletedFile::restoreAttributes() {
  const int rc = active_ && atItsPlace_
                     ? restoreAttrOf(path_, snap_.get(), active_.get(), settings.phase)
                     : restoreAttr(path_, settings.phase);
  return rc == 0 ? Step{} : failedStep(71, errno, rc);
}

Step DeletedFile::sizeFile(const struct stat &st) {
  if (st.st_size == snapSize()) return {};
  bool clearing_failed = false;
  const int err = retryClearing(
      path_, "",
      [&] { return kest_truncate(handles.activeFsP, linkFree(path_).c_str(), snapSize(), st.st_ino); },
      &clearing_failed);
  return err == 0 ? Step{} : failedStep(clearing_failed ? 7 : 4, err);
}

// Phase 51: the file, and its data where the record has all of it; else its size: data follows in the
// next phase, unless there is none.
Step DeletedFile::create(const struct stat &st, const Range &range) {
  std::string snap_path;
  uint64_t snap_ino = 0;
  if (getSnapPath(path_, true, &snap_path, &snap_ino) != 0) {
    const int err = errno;
    traceLog("restoreDelFile: cannot get snap path %s\n", path_.c_str());
    return failedStep(8, err);
  }
  atItsPlace_ = snap_ino == ino_;
  if (Step step = restoreXAttrs(); !step) return step;
  // The data makes a shorter file long enough.
  if (range.length == 0 || st.st_size > snapSize()) {
    if (Step step = sizeFile(st); !step) return step;
  }
  if (range.length == 0) return snapSize() == 0 ? restoreAttributes() : Step{};
  const Step step = copyData(st, range);
  return step ? restoreAttributes() : step;
}

// A clone with several names is listed for the first that was missing; while the inode is there, its
// names are linked to it later.
Step DeletedFile::lookIfAlive(bool *lives) {
  kest_iattr64_t attr;
  if (kest_istat(snap_.get(), &attr) != 0) return failedStep(12, errno);
  const int kind = attr.ia_nlink > 1 ? checkFile(ino_) : kKindOther;
  *lives = kind == kKindSame;
  return kind < 0 ? failedStep(12, errno) : Step{};
}

Step DeletedFile::copyData(const struct stat &st, const Range &range) {
  const int64_t length = range.length != 0 ? range.length : snapSize();
  bool clearing_failed = false;
  const int err = retryClearing(
      path_, "",
      [&] {
        if (!active_) active_ = openInode(handles.activeFsP, st.st_ino, 1);
        if (!active_) return -1;
        return copyToActiveFile(snap_.get(), active_.get(), range.offset, length, &range.holeFound,
                                range.clone) == 0
                   ? 0
                   : -1;
      },
      &clearing_failed);
  if (err == 0) return {};
  if (!active_) return failedStep(6, err, err);
  if (clearing_failed) return failedStep(72, err, err);
  traceLog("restoreDelFile: failed to copy data, offset %ld length %ld\n",
           static_cast<long>(range.offset), static_cast<long>(length));
  return failedStep(9, err, err);
}

Step DeletedFile::restore(const Range &range) {
  const mode_t mode = snap_->if_mode;
  if (!isRegular(mode)) {
    Step step = S_ISLNK(mode) ? makeLink() : makeSpecial();
    if (step) step = restoreXAttrs();
    return step ? restoreAttributes() : step;
  }
  if (settings.phase != kPhaseLinks && isClone(snap_.get(), nullptr, nullptr)) {
    bool lives = false;
    if (Step step = lookIfAlive(&lives); !step || lives) return step;
  }
  Descriptor fd;
  bool created = false;
  if (const int err = makeRegular(&fd, &created)) return createFailed("open", err);
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return failedStep(5, errno);
  if (!S_ISREG(st.st_mode)) return failedStep(5, EEXIST);
  if (!isMadeFor(st, snap_.get())) return failedStep(5, ESTALE);
  active_ = created ? takeInode(handles.activeFsP, &fd) : openInode(handles.activeFsP, st.st_ino, 1);
  if (created && !active_) return failedStep(6, errno, errno);
  if (settings.phase == kPhaseCreate) return create(st, range);
  if (settings.phase == kPhaseLinks) {
    // Some of what comes with them is taken by an empty file only.
    if (Step step = restoreXAttrs(); !step) return step;
    if (Step step = sizeFile(st); !step) return step;
  }
  if (snapSize() > 0) {
    if (Step step = copyData(st, range); !step) return step;
  }
  return restoreAttributes();
}

// Copies one range of a file that survived.
Step copyBack(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active, const Range &range) {
  const int err = retryClearing(path, "", [&] {
    return copyToActiveFile(snap, active, range.offset, range.length, &range.holeFound, range.clone) ==
                   0
               ? 0
               : -1;
  });
  return err == 0 ? Step{} : failedStep(7, err, err);
}

// Where the path belongs to another object of the snapshot, the move back restores the attributes.
// `active`: the object at the path; null: it is another one by now.
Step attributesOfSurvivor(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active) {
  std::string snap_path;
  uint64_t snap_ino = 0;
  bool absent = false;
  if (getSnapPath(path, true, &snap_path, &snap_ino, &absent) != 0)
    return absent || errno == ENOENT ? Step{} : failedStep(91, errno);
  if (snap_ino != snap->if_inode) return {};
  const int rc = active != nullptr ? restoreAttrOf(path, snap, active, settings.phase)
                                   : restoreAttr(path, settings.phase);
  return rc == 0 ? Step{} : failedStep(91, errno, rc);
}

Step restoreSurvivor(const std::string &path, uint64_t ino, const Range &range) {
  const Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return failedStep(1, errno, errno);
  const Inode active = openInode(handles.activeFsP, ino);
  const int open_error = errno;
  struct stat st;
  const bool in_place = active && statPath(path, &st) == 0 && st.st_ino == ino;
  if (!settings.noXAttr) {
    const int rc = in_place ? restoreXAttrOf(snap.get(), active.get(), path)
                            : restoreXAttr(ino, snap.get(), &path);
    if (rc != 0) return failedStep(2, errno, rc);
  }
  if (isDirectory(snap->if_mode)) {
    const int rc = listNewDir(path, ino);
    return rc == 0 ? Step{} : failedStep(21, errno, rc);
  }
  if (isRegular(snap->if_mode)) {
    if (!active) return failedStep(3, open_error, open_error);
    if (Step step = copyBack(path, snap.get(), active.get(), range); !step) return step;
  }
  return attributesOfSurvivor(path, snap.get(), in_place ? active.get() : nullptr);
}

}  // namespace

int restoreDelFile(const std::string &path, uint64_t ino, int64_t offset, uint64_t length,
                   int32_t holeFound, int32_t clone) {
  Inode snap = openInode(handles.oldFsP, ino);
  Step step = snap ? Step{} : failedStep(1, errno, errno);
  if (snap) {
    const Range range{offset, static_cast<int64_t>(length), holeFound, clone != 0};
    step = DeletedFile(path, ino, std::move(snap)).restore(range);
  }
  if (step) return 0;
  traceLog("restoreDelFile: ino %lld, path %s, pass %d,rc %d, code %d, err %d\n",
           static_cast<long long>(ino), path.c_str(), settings.pass, step.rc, step.code, step.err);
  errno = step.err;
  return step.rc;
}

int restoreDiffFile(const std::string &path, uint64_t ino, int64_t offset, uint64_t length,
                    int32_t holeFound, int32_t clone) {
  const Range range{offset, static_cast<int64_t>(length), holeFound, clone != 0};
  const Step step = restoreSurvivor(path, ino, range);
  if (step) return 0;
  traceLog("restoreDiffFile:ino %lld failed, path %s, pass %d, code %d, rc %d, err %d\n",
           static_cast<long long>(ino), path.c_str(), settings.pass, step.code, step.rc, step.err);
  errno = step.err;
  return step.rc;
}
