#include "object/attr_restore.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/fd_path.h"
#include "base/unique_fd.h"
#include "object/flags.h"
#include "object/paths.h"
#include "object/places.h"
#include "object/xattr_restore.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

constexpr int kFirstAcl = 10240;  // bytes
constexpr int kAllTimes = 15;
constexpr char kCapability[] = "security.capability";

// Codes of the trace line.
enum AttrStep : int {
  kOpenObject = 1,
  kFindCopy = 2,  // the object's copy in the snapshot
  kReadAcl = 3,
  kPutAcl = 5,
  kIdentify = 6,  // the object is not the copy's: another type (EINVAL) or another inode (ESTALE)
  kSetOwner = 7,
  kSetTimes = 8,
  kOpenCopy = 10,
  kReadCopyFlags = 11,
  kSetImmutable = 12,  // also: the object's own flags cannot be read
  kSetAppendOnly = 13,
  kSetCapability = 14,
};

// The head of an ACL buffer; the library's part follows.
struct AclHead {
  int32_t length;
  uint16_t version;
  uint8_t type;
};

// One object whose attributes are being restored. Everything is done through a descriptor of it and one
// of the snapshot's inode, so that no other object can come in between.
struct Target {
  const std::string &path;
  std::string snapPath;  // for traces
  kest_ifile_t *snap;
  UniqueFd fd;
  struct stat st {};
  UniqueFd snapFd;
  kest_iattr64_t attr{};
};

// Runs `step`, a system call or library call, and clears flags that forbid it.
template <typename Call>
Result attempt(const Target &target, AttrStep step, const Call &call) {
  const Result r = retryClearing(target.path, "", [&] { return called(call()); });
  return r ? Result{} : failed(step, r.err);
}

// The change of the owner keeps the mode, which is restored after it: until then a program would run as
// the new owner because the old one wanted it.
Result dropSpecialBits(const Target &target) {
  if (!isRegular(target.st.st_mode) || (target.st.st_mode & (S_ISUID | S_ISGID)) == 0) return {};
  const FdPath name(target.fd.get());
  const mode_t mode = target.st.st_mode & 01777;
  return attempt(target, kSetOwner, [&] { return chmod(name.get(), mode); });
}

Result restoreOwner(const Target &target) {
  const kest_iattr64_t &attr = target.attr;
  if (target.st.st_uid == attr.ia_uid && target.st.st_gid == attr.ia_gid) return {};
  if (Result r = dropSpecialBits(target); !r) return r;
  return attempt(target, kSetOwner,
                 [&] { return kest_fchown(target.fd.get(), attr.ia_uid, attr.ia_gid); });
}

// A buffer that is too small is made larger once.
Result readAcl(const Target &target, std::vector<char> *acl) {
  acl->resize(kFirstAcl);
  for (bool grown = false;; grown = true) {
    AclHead head{static_cast<int32_t>(acl->size()), 0, 1};
    memcpy(acl->data(), &head, sizeof head);
    if (kest_fgetacl(target.snapFd.get(), 0, acl->data()) == 0) return {};
    if (errno != ENOSPC || grown) return failed(kReadAcl);
    memcpy(&head, acl->data(), sizeof head);
    if (head.length <= static_cast<int32_t>(acl->size())) return failed(kReadAcl);
    acl->resize(static_cast<size_t>(head.length));
  }
}

// The blob carries the twelve mode bits too. After the owner: changing that clears some of them.
Result restoreAcl(const Target &target) {
  std::vector<char> acl;
  if (Result r = readAcl(target, &acl); !r) {
    traceLog("restoreAttr: failed to get acl. fileSnapPathP %s\n", target.snapPath.c_str());
    return r;
  }
  const Result put =
      attempt(target, kPutAcl, [&] { return kest_fputacl(target.fd.get(), 0, acl.data()); });
  if (!put) traceLog("restoreAttr: failed to put acl. path %s\n", target.path.c_str());
  return put;
}

bool sameTime(const struct timespec &a, const kest_timestruc64_t &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == static_cast<long>(b.tv_nsec);
}

Result restoreTimes(const Target &target) {
  const kest_iattr64_t &attr = target.attr;
  struct stat now;
  if (fstat(target.fd.get(), &now) != 0) return failed(kSetTimes);
  if (sameTime(now.st_atim, attr.ia_atime) && sameTime(now.st_mtim, attr.ia_mtime)) return {};
  const kest_timestruc64_t times[4] = {attr.ia_atime, attr.ia_mtime, attr.ia_ctime, attr.ia_createtime};
  return attempt(target, kSetTimes, [&] { return kest_fset_times(target.fd.get(), kAllTimes, times); });
}

// Data writes and owner changes drop a file's capability. Each of these steps keeps it for itself, but
// of several workers on one file one can read it at the moment in which another's step has dropped it.
// So it is compared and set once more here, where nothing drops it any more.
Result restoreCapability(const Target &target) {
  if (settings.noXAttr || !isRegular(target.attr.ia_mode) || target.attr.ia_xattr == 0) return {};
  const FdPath snap_name(target.snapFd.get()), name(target.fd.get());
  char wanted[256], now[256];
  const ssize_t length = getxattr(snap_name.get(), kCapability, wanted, sizeof wanted);
  if (length < 0) return errno == ENODATA || errno == EOPNOTSUPP ? Result{} : failed(kSetCapability);
  const ssize_t there = getxattr(name.get(), kCapability, now, sizeof now);
  if (there == length && memcmp(now, wanted, static_cast<size_t>(length)) == 0) return {};
  return attempt(target, kSetCapability, [&] {
    return setxattr(name.get(), kCapability, wanted, static_cast<size_t>(length), 0);
  });
}

// Last of all: either flag would forbid every other step.
Result restoreFlags(const Target &target) {
  const int fd = target.fd.get();
  InodeFlags wanted, now;
  if (Result r = getInodeFlags(target.snapFd.get(), &wanted); !r) return failed(kReadCopyFlags, r.err);
  Result r = getInodeFlags(fd, &now);
  if (r && now.immutable != wanted.immutable) r = setImmutableFlag(fd, wanted.immutable);
  if (!r) return failed(kSetImmutable, r.err);
  if (now.appendOnly != wanted.appendOnly) r = setAppendOnlyFlag(fd, wanted.appendOnly);
  return r ? Result{} : failed(kSetAppendOnly, r.err);
}

Result openSnapshotCopy(Target &target) {
  if (kest_istat(target.snap, &target.attr) != 0) return failed(kIdentify);
  if ((target.st.st_mode & S_IFMT) != (target.attr.ia_mode & S_IFMT)) return failed(kIdentify, EINVAL);
  if (!isInodeOrReplacement(target.st, target.snap->if_inode, target.attr))
    return failed(kIdentify, ESTALE);
  target.snapFd.reset(kest_path_descriptor(target.snap));
  return target.snapFd ? Result{} : failed(kOpenCopy);
}

Result restoreTarget(Target &target, int32_t phase) {
  if (Result r = openSnapshotCopy(target); !r) return r;
  const mode_t type = target.st.st_mode & S_IFMT;
  if (Result r = restoreOwner(target); !r) return r;
  if (type == S_IFLNK) return restoreTimes(target);
  if (type == S_IFDIR && phase != kPhaseDirs) return {};
  if (Result r = restoreAcl(target); !r) return r;
  if (Result r = restoreTimes(target); !r) return r;
  if (Result r = restoreCapability(target); !r) return r;
  return type == S_IFREG || type == S_IFDIR ? restoreFlags(target) : Result{};
}

Result restorePath(const std::string &path, int32_t phase) {
  Target target{.path = path, .snapPath = {}, .snap = nullptr, .fd = {}, .snapFd = {}};
  if (Result r = openObject(path, &target.fd); !r) return failed(kOpenObject, r.err);
  if (fstat(target.fd.get(), &target.st) != 0) return failed(kOpenObject);
  SnapPlace place;
  if (Result r = getSnapPath(path, &place); !r)
    return place.absent ? Result{} : failed(kFindCopy, r.err);
  Inode snap;
  if (Result r = openInode(handles.oldFsP, place.ino, &snap); !r) return failed(kIdentify, r.err);
  target.snapPath = std::move(place.path);
  target.snap = snap.get();
  return restoreTarget(target, phase);
}

Result restoreOpen(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active, int32_t phase) {
  Target target{.path = path,
                .snapPath = {},
                .snap = snap,
                .fd = UniqueFd(kest_path_descriptor(active)),
                .snapFd = {}};
  if (!target.fd || fstat(target.fd.get(), &target.st) != 0) return failed(kOpenObject);
  return restoreTarget(target, phase);
}

Result traced(const std::string &path, const Result &r) {
  if (!r) {
    traceLog("restoreAttr: path %s, rc %d, code %d, err %d\n", path.c_str(), r.rc, r.code, r.err);
  }
  return r;
}

}  // namespace

Result restoreAttr(const std::string &path, int32_t phase) {
  return phase < kPhaseMain ? Result{} : traced(path, restorePath(path, phase));
}

Result restoreAttrOf(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active, int32_t phase) {
  return phase < kPhaseMain ? Result{} : traced(path, restoreOpen(path, snap, active, phase));
}

Result restoreRootAttr() {
  const std::string &root = handles.rootPath;
  if (!settings.noXAttr) {
    Inode snap;
    if (Result r = openInode(handles.oldFsP, handles.rootIno, &snap); !r) return r;
    if (Result r = restoreXAttr(handles.rootIno, snap.get(), root); !r) return r;
  }
  return restoreAttr(root, kPhaseDirs);
}
