#include "object/attr_restore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "object/flags.h"
#include "object/places.h"
#include "object/xattr_restore.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/clone_state.h"

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
  kSetImmutable = 12,  // or append-only; also: the object's flags cannot be read
  kSetCapability = 14,
};

// The head of an ACL buffer; the library's part follows.
struct AclHead {
  int32_t length;
  uint16_t version;
  uint8_t type;
};

// One object whose attributes are being restored. Everything is done on the open inode, so that no
// other object can come in between.
struct Target {
  const std::string &path;
  std::string snapPath;  // for traces
  const OpenObject &snap;
  OpenObject &active;
  bool data_written;
};

// Runs `step`, a library call, and clears flags that forbid it.
template <typename Call>
Result attempt(const Target &target, AttrStep step, const Call &call) {
  const Result r = retryClearing(target.path, "", [&] { return called(call()); });
  return r ? Result{} : failed(step, r.err);
}

Result setMode(const Target &target, AttrStep step, mode_t mode) {
  if (Result r = attempt(target, step, [&] { return kest_ichmod(target.active.get(), mode); }); !r)
    return r;
  uint32_t &known = target.active.facts.attr.ia_mode;
  known = (known & S_IFMT) | mode;
  return {};
}

// The change of the owner keeps the mode, which is restored after it: until then a program would run as
// the new owner because the old one wanted it.
Result dropSpecialBits(const Target &target) {
  const uint32_t mode = target.active.facts.attr.ia_mode;
  if (!isRegular(mode) || (mode & (S_ISUID | S_ISGID)) == 0) return {};
  return setMode(target, kSetOwner, mode & 01777);
}

Result restoreOwner(const Target &target) {
  const kest_iattr64_t &want = target.snap.facts.attr, &have = target.active.facts.attr;
  if (have.ia_uid == want.ia_uid && have.ia_gid == want.ia_gid) return {};
  if (Result r = dropSpecialBits(target); !r) return r;
  return attempt(target, kSetOwner,
                 [&] { return kest_ichown(target.active.get(), want.ia_uid, want.ia_gid); });
}

// A buffer that is too small is made larger once.
Result readAcl(const Target &target, std::vector<char> *acl) {
  acl->resize(kFirstAcl);
  for (bool grown = false;; grown = true) {
    AclHead head{static_cast<int32_t>(acl->size()), 0, 1};
    memcpy(acl->data(), &head, sizeof head);
    if (kest_igetacl(target.snap.get(), 0, acl->data()) == 0) return {};
    if (errno != ENOSPC || grown) return failed(kReadAcl);
    memcpy(&head, acl->data(), sizeof head);
    if (head.length <= static_cast<int32_t>(acl->size())) return failed(kReadAcl);
    acl->resize(static_cast<size_t>(head.length));
  }
}

// Where neither object has an ACL, the mode is all that there is to restore. A write of data can drop
// the set-user-ID and set-group-ID bits, so the mode is set again where the snapshot's has them.
Result restoreModeAlone(const Target &target) {
  constexpr mode_t kModeBits = 07777;
  const uint32_t want = target.snap.facts.attr.ia_mode, have = target.active.facts.attr.ia_mode;
  const bool may_be_dropped = target.data_written && (want & (S_ISUID | S_ISGID)) != 0;
  if (((want ^ have) & kModeBits) == 0 && !may_be_dropped) return {};
  return setMode(target, kPutAcl, want & kModeBits);
}

// The blob carries the twelve mode bits too. After the owner: changing that clears some of them.
Result restoreAcl(const Target &target) {
  if (!target.snap.has(KEST_HAS_ACL) && !target.active.has(KEST_HAS_ACL))
    return restoreModeAlone(target);
  std::vector<char> acl;
  if (Result r = readAcl(target, &acl); !r) {
    traceLog("restoreAttr: failed to get acl. fileSnapPathP %s\n", target.snapPath.c_str());
    return r;
  }
  const Result put =
      attempt(target, kPutAcl, [&] { return kest_iputacl(target.active.get(), 0, acl.data()); });
  if (!put) traceLog("restoreAttr: failed to put acl. path %s\n", target.path.c_str());
  return put;
}

bool sameTime(const kest_timestruc64_t &a, const kest_timestruc64_t &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Clone attributes that cannot be read have been recorded as a fatal error.
bool isUnsettledParent(const OpenObject &snap, int32_t phase) {
  CloneAttr attr;
  bool clone = false;
  return phase == kPhaseClones && snap.has(KEST_HAS_CLONE) && isClone(snap.get(), &clone, &attr) &&
         clone && attr.isParent();
}

Result restoreTimes(const Target &target, int32_t phase) {
  kest_iattr64_t want = target.snap.facts.attr;
  const kest_iattr64_t &have = target.active.facts.attr;
  if (isUnsettledParent(target.snap, phase)) want.ia_mtime = unsettledTime(want.ia_mtime);
  if (!target.data_written && sameTime(have.ia_atime, want.ia_atime) &&
      sameTime(have.ia_mtime, want.ia_mtime))
    return {};
  const kest_timestruc64_t times[4] = {want.ia_atime, want.ia_mtime, want.ia_ctime, want.ia_createtime};
  return attempt(target, kSetTimes,
                 [&] { return kest_iset_times(target.active.get(), kAllTimes, times); });
}

// Data writes and owner changes drop a file's capability. Each of these steps keeps it for itself, but
// of several workers on one file one can read it at the moment in which another's step has dropped it.
// So it is compared and set once more here, where nothing drops it any more.
Result restoreCapability(const Target &target) {
  if (settings.noXAttr || target.snap.type() != S_IFREG || !target.snap.has(KEST_HAS_CAPABILITY))
    return {};
  char wanted[256], now[256];
  const int64_t length = kest_igetxattr(target.snap.get(), kCapability, wanted, sizeof wanted);
  if (length < 0) return errno == ENODATA || errno == EOPNOTSUPP ? Result{} : failed(kSetCapability);
  const int64_t there = kest_igetxattr(target.active.get(), kCapability, now, sizeof now);
  if (there == length && memcmp(now, wanted, static_cast<size_t>(length)) == 0) return {};
  return attempt(target, kSetCapability, [&] {
    return kest_isetxattr(target.active.get(), kCapability, wanted, static_cast<size_t>(length));
  });
}

// Last of all: either flag would forbid every other step. An object that carried none when it was
// opened, and that the snapshot has without any, has none now: other workers set only what the snapshot
// has.
Result restoreFlags(const Target &target) {
  const uint32_t wanted = target.snap.facts.protection;
  if (wanted == 0 && target.active.facts.protection == 0) return {};
  // A step before may have cleared them.
  kest_facts_t now;
  if (kest_ifacts(target.active.get(), &now) != 0) return failed(kSetImmutable);
  if (now.protection == wanted) return {};
  return kest_iset_protection(target.active.get(), wanted) == 0 ? Result{} : failed(kSetImmutable);
}

Result restoreTarget(const Target &target, int32_t phase) {
  const uint32_t type = target.active.type();
  if (type != target.snap.type()) return failed(kIdentify, EINVAL);
  if (!isInodeOrReplacement(target.active, target.snap)) return failed(kIdentify, ESTALE);
  if (Result r = restoreOwner(target); !r) return r;
  if (type == S_IFLNK) return restoreTimes(target, phase);
  if (type == S_IFDIR && phase != kPhaseDirs) return {};
  if (Result r = restoreAcl(target); !r) return r;
  if (Result r = restoreTimes(target, phase); !r) return r;
  if (Result r = restoreCapability(target); !r) return r;
  return type == S_IFREG || type == S_IFDIR ? restoreFlags(target) : Result{};
}

Result restorePath(const std::string &path, int32_t phase) {
  OpenObject active, snap;
  if (Result r = openAt(path, &active); !r) return failed(kOpenObject, r.err);
  SnapPlace place;
  if (Result r = getSnapPath(path, &place); !r)
    return place.absent ? Result{} : failed(kFindCopy, r.err);
  if (Result r = openSnapshotObject(place.ino, path, &snap); !r) return failed(kIdentify, r.err);
  return restoreTarget({path, std::move(place.path), snap, active, false}, phase);
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

Result restoreAttrOf(const std::string &path, const OpenObject &snap, OpenObject &active, int32_t phase,
                     bool data_written) {
  if (phase < kPhaseMain) return {};
  return traced(path, restoreTarget({path, {}, snap, active, data_written}, phase));
}

kest_timestruc64_t unsettledTime(const kest_timestruc64_t &mtime) {
  return {mtime.tv_sec, mtime.tv_nsec == 0 ? 1 : mtime.tv_nsec - 1};
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
