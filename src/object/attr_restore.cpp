#include "object/attr_restore.h"

#include <sys/xattr.h>
#include <cerrno>
#include <cstring>
#include <vector>

#include "object/clear_flags.h"
#include "object/control_request.h"
#include "object/identity.h"
#include "object/object_stat.h"
#include "object/snap_path.h"
#include "object/xattr_restore.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

constexpr int kFirstAcl = 10240;  // bytes
constexpr int kAllTimes = 15;
constexpr char kCapability[] = "security.capability";

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
  Descriptor fd;
  struct stat st {};
  Descriptor snapFd;
  kest_iattr64_t attr{};
};

// Each step: 0, or the code of the failing one with errno.

// The change of the owner keeps the mode, which is restored after it: until then a program would run as
// the new owner because the old one wanted it.
int dropSpecialBits(const Target &target) {
  if (!isRegular(target.st.st_mode) || (target.st.st_mode & (S_ISUID | S_ISGID)) == 0) return 0;
  const std::string name = descriptorPath(target.fd.get());
  const mode_t mode = target.st.st_mode & 01777;
  return retryClearing(target.path, "", [&] { return chmod(name.c_str(), mode); });
}

int restoreOwner(Target &target) {
  const kest_iattr64_t &attr = target.attr;
  if (target.st.st_uid == attr.ia_uid && target.st.st_gid == attr.ia_gid) return 0;
  if (dropSpecialBits(target) != 0) return 7;
  const int err = retryClearing(target.path, "",
                                [&] { return kest_fchown(target.fd.get(), attr.ia_uid, attr.ia_gid); });
  return err == 0 ? 0 : 7;
}

int readAcl(Target &target, std::vector<char> *acl) {
  acl->resize(kFirstAcl);
  for (bool grown = false;; grown = true) {
    AclHead head{static_cast<int32_t>(acl->size()), 0, 1};
    memcpy(acl->data(), &head, sizeof head);
    if (kest_fgetacl(target.snapFd.get(), 0, acl->data()) == 0) return 0;
    if (errno != ENOSPC || grown) return -1;
    memcpy(&head, acl->data(), sizeof head);
    if (head.length <= static_cast<int32_t>(acl->size())) return -1;
    acl->resize(static_cast<size_t>(head.length));
  }
}

// The blob carries the twelve mode bits too. After the owner: changing that clears some of them.
int restoreAcl(Target &target) {
  std::vector<char> acl;
  if (readAcl(target, &acl) != 0) {
    traceLog("restoreAttr: failed to get acl. fileSnapPathP %s\n", target.snapPath.c_str());
    return 3;
  }
  if (retryClearing(target.path, "", [&] { return kest_fputacl(target.fd.get(), 0, acl.data()); }) == 0)
    return 0;
  traceLog("restoreAttr: failed to put acl. path %s\n", target.path.c_str());
  return 5;
}

bool sameTime(const struct timespec &a, const kest_timestruc64_t &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == static_cast<long>(b.tv_nsec);
}

int restoreTimes(Target &target) {
  const kest_iattr64_t &attr = target.attr;
  struct stat now;
  if (fstat(target.fd.get(), &now) != 0) return 8;
  if (sameTime(now.st_atim, attr.ia_atime) && sameTime(now.st_mtim, attr.ia_mtime)) return 0;
  const kest_timestruc64_t times[4] = {attr.ia_atime, attr.ia_mtime, attr.ia_ctime, attr.ia_createtime};
  const int err = retryClearing(target.path, "",
                                [&] { return kest_fset_times(target.fd.get(), kAllTimes, times); });
  return err == 0 ? 0 : 8;
}

// Data writes and owner changes drop a file's capability. Each keeps it for itself, but of several
// workers on one file one can see the moment in which another's step has dropped it. So the last word
// is here.
int restoreCapability(Target &target) {
  if (settings.noXAttr || !isRegular(target.attr.ia_mode) || target.attr.ia_xattr == 0) return 0;
  const std::string snap_name = descriptorPath(target.snapFd.get());
  const std::string name = descriptorPath(target.fd.get());
  char wanted[256], now[256];
  const ssize_t length = getxattr(snap_name.c_str(), kCapability, wanted, sizeof wanted);
  if (length < 0) return errno == ENODATA || errno == EOPNOTSUPP ? 0 : 14;
  const ssize_t there = getxattr(name.c_str(), kCapability, now, sizeof now);
  if (there == length && memcmp(now, wanted, static_cast<size_t>(length)) == 0) return 0;
  const int err = retryClearing(target.path, "", [&] {
    return setxattr(name.c_str(), kCapability, wanted, static_cast<size_t>(length), 0);
  });
  return err == 0 ? 0 : 14;
}

// Last of all: either flag would stand in the way of every other step.
int restoreFlags(Target &target) {
  InodeFlags wanted, now;
  if (getInodeFlags(target.snapFd.get(), &wanted) != 0) return 11;
  if (getInodeFlags(target.fd.get(), &now) != 0) return 12;
  if (now.immutable != wanted.immutable && setImmutableFlag(target.fd.get(), wanted.immutable) != 0)
    return 12;
  if (now.appendOnly != wanted.appendOnly && setAppendOnlyFlag(target.fd.get(), wanted.appendOnly) != 0)
    return 13;
  return 0;
}

int openSnapshotCopy(Target &target) {
  if (target.snap == nullptr || kest_istat(target.snap, &target.attr) != 0) return 6;
  if ((target.st.st_mode & S_IFMT) != (target.attr.ia_mode & S_IFMT)) {
    errno = EINVAL;
    return 6;
  }
  if (!mayBecome(target.st, target.snap->if_inode, target.attr)) {
    errno = ESTALE;
    return 6;
  }
  target.snapFd = Descriptor(kest_path_descriptor(target.snap));
  return target.snapFd ? 0 : 10;
}

int restoreAll(Target &target, int32_t phase) {
  const mode_t type = target.st.st_mode & S_IFMT;
  if (int code = restoreOwner(target); code != 0) return code;
  if (type == S_IFLNK) return restoreTimes(target);
  if (type == S_IFDIR && phase != kPhaseDirs) return 0;
  if (int code = restoreAcl(target); code != 0) return code;
  if (int code = restoreTimes(target); code != 0) return code;
  if (int code = restoreCapability(target); code != 0) return code;
  return type == S_IFREG || type == S_IFDIR ? restoreFlags(target) : 0;
}

int restoreTarget(Target &target, int32_t phase) {
  if (int code = openSnapshotCopy(target); code != 0) return code;
  return restoreAll(target, phase);
}

// The code of the failing step with errno, or 0.
int restore(const std::string &path, int32_t phase) {
  Target target{.path = path,
                .snapPath = {},
                .snap = nullptr,
                .fd = Descriptor(openObject(path)),
                .snapFd = Descriptor()};
  if (!target.fd) return 1;
  if (fstat(target.fd.get(), &target.st) != 0) return 1;
  uint64_t snap_ino = 0;
  bool absent = false;
  if (getSnapPath(path, true, &target.snapPath, &snap_ino, &absent) != 0) return absent ? 0 : 2;
  const Inode snap = openInode(handles.oldFsP, snap_ino);
  target.snap = snap.get();
  return restoreTarget(target, phase);
}

int finish(const std::string &path, int code) {
  if (code == 0) return 0;
  const int err = errno;
  traceLog("restoreAttr: path %s, rc %d, code %d, err %d\n", path.c_str(), -1, code, err);
  errno = err;
  return -1;
}

}  // namespace

int restoreAttr(const std::string &path, int32_t phase) {
  return phase < kPhaseMain ? 0 : finish(path, restore(path, phase));
}

int restoreAttrOf(const std::string &path, kest_ifile_t *snap, kest_ifile_t *active, int32_t phase) {
  if (phase < kPhaseMain) return 0;
  Target target{.path = path,
                .snapPath = {},
                .snap = snap,
                .fd = Descriptor(kest_path_descriptor(active)),
                .snapFd = Descriptor()};
  const bool open = target.fd && fstat(target.fd.get(), &target.st) == 0;
  return finish(path, open ? restoreTarget(target, phase) : 1);
}

int restoreRootAttr() {
  const std::string &root = handles.rootPath;
  if (!settings.noXAttr) {
    Inode snap = openInode(handles.oldFsP, handles.rootIno);
    if (!snap) return errno;
    if (int rc = restoreXAttr(handles.rootIno, snap.get(), &root); rc != 0) return rc;
  }
  return restoreAttr(root, kPhaseDirs);
}
