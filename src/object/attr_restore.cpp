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

// Step codes of the trace line.
enum AttrStep : int {
  kOpenObject = 1,
  kFindCopy = 2,  // the object's copy in the snapshot
  kReadAcl = 3,
  kPutAcl = 5,
  kIdentify = 6,  // the object is not the expected one: another type (EINVAL) or another inode (ESTALE)
  kSetOwner = 7,
  kSetTimes = 8,       // or finding out whether the object is an unsettled clone parent
  kSetImmutable = 12,  // or append-only; also if the object's flags cannot be read
  kSetCapability = 14,
};

// The head of an ACL buffer. The library's own data follows it.
struct AclHead {
  int32_t length;
  uint16_t version;
  uint8_t type;
};

// One object whose attributes are restored. All steps work on the open inode, so that nobody can put
// another object in its place between two of them.
struct Target {
  const std::string &path;
  std::string snapPath;  // for traces
  const OpenObject &snap;
  OpenObject &active;
  bool data_written;
};

// Runs `step`, a library call, and repeats it after clearing the flags that forbid it.
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

// Clear the set-ID bits before chown, which keeps the mode here. Otherwise a set-user-ID program of the
// old owner would run with the rights of the new one until the mode is restored.
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

// Reads the ACL and enlarges the buffer once if it is too small.
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

// Without an ACL on either object only the mode needs restoring. The kernel can drop the set-user-ID
// and set-group-ID bits on a write, so set the mode again after data was written if the snapshot has
// them.
Result restoreModeAlone(const Target &target) {
  constexpr mode_t kModeBits = 07777;
  const uint32_t want = target.snap.facts.attr.ia_mode, have = target.active.facts.attr.ia_mode;
  const bool may_be_dropped = target.data_written && (want & (S_ISUID | S_ISGID)) != 0;
  if (((want ^ have) & kModeBits) == 0 && !may_be_dropped) return {};
  return setMode(target, kPutAcl, want & kModeBits);
}

// The blob also carries the twelve mode bits. This must follow restoreOwner: chown clears some of them.
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

Result isUnsettledParent(const OpenObject &snap, int32_t phase, bool *unsettled) {
  *unsettled = false;
  if (phase != kPhaseClones || !snap.has(KEST_HAS_CLONE)) return {};
  CloneAttr attr;
  bool clone = false;
  if (Result r = isClone(snap.get(), &clone, &attr); !r) return failed(kSetTimes, r.err);
  *unsettled = clone && attr.isParent();
  return {};
}

Result restoreTimes(const Target &target, int32_t phase) {
  kest_iattr64_t want = target.snap.facts.attr;
  const kest_iattr64_t &have = target.active.facts.attr;
  bool unsettled = false;
  if (Result r = isUnsettledParent(target.snap, phase, &unsettled); !r) return r;
  if (unsettled) want.ia_mtime = unsettledTime(want.ia_mtime);
  if (!target.data_written && sameTime(have.ia_atime, want.ia_atime) &&
      sameTime(have.ia_mtime, want.ia_mtime))
    return {};
  const kest_timestruc64_t times[4] = {want.ia_atime, want.ia_mtime, want.ia_ctime, want.ia_createtime};
  return attempt(target, kSetTimes,
                 [&] { return kest_iset_times(target.active.get(), kAllTimes, times); });
}

// Writes and chown drop a file's capability. Each step restores it afterwards, but when several workers
// write one file, a worker can read the attribute just after another's step has dropped it. Compare it
// once more here, after the last step that could drop it.
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

// This comes last, because either flag forbids every other step. If neither the snapshot nor the object
// had a flag when it was opened, it has none now: other workers set only flags that the snapshot has.
Result restoreFlags(const Target &target) {
  const uint32_t wanted = target.snap.facts.protection;
  if (wanted == 0 && target.active.facts.protection == 0) return {};
  // An earlier step may have cleared the flags since the facts were read.
  kest_facts_t now;
  if (kest_ifacts(target.active.get(), &now) != 0) return failed(kSetImmutable);
  if (now.protection == wanted) return {};
  return kest_iset_protection(target.active.get(), wanted) == 0 ? Result{} : failed(kSetImmutable);
}

Result restoreTarget(const Target &target, int32_t phase) {
  const uint32_t type = target.active.type();
  // A path can lead to another object by now, for example one that a user has moved there.
  if (type != target.snap.type()) return failed(kIdentify, EINVAL);
  if (!isInodeOrReplacement(target.active, target.snap)) return failed(kIdentify, ESTALE);
  if (Result r = restoreOwner(target); !r) return r;
  // A symbolic link has no mode, ACL or flags of its own.
  if (type == S_IFLNK) return restoreTimes(target, phase);
  // Later phases still change directories, so phase 6 sets everything but the owner.
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
