#include "scan/same_file.h"

#include <cerrno>
#include <cstring>

#include "messages/messages.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/clone_state.h"

namespace {

enum CheckStep : int {
  kOpenActive = 1,
  kOpenSnapshot = 2,
  kCompareClones = 3,
  kAskDifference = 4,
};

Result checkFailed(uint64_t ino, const Result &r) {
  traceLog("checkFile: ino %lld, type %d, rc %d, code %d, err %d\n", static_cast<long long>(ino), 0,
           r.rc, r.code, r.err);
  return r;
}

// Classifies an inode from the difference alone, without opening it. *known is false if the inodes
// themselves must be compared: that a file was deleted stays true, but everything else is valid only in
// the first pass, before the run changes anything. A file system may still find a file by its number
// that was moved out of the fileset; it counts as deleted, too.
Result knownKind(uint64_t ino, bool *known, FileKind *kind) {
  *known = false;
  const int bits = kest_idifference(handles.iscanP, ino);
  if (bits < 0) return checkFailed(ino, failed(kAskDifference));
  // An inode that is not in the difference is unchanged or was made since. The kind of a clone must
  // be compared.
  if (bits == 0 || bits & KEST_DI_CLONE) return {};
  if (settings.pass != 1 && bits & KEST_DI_ACTIVE) return {};
  *known = true;
  if (!(bits & KEST_DI_ACTIVE)) {
    *kind = kKindDeleted;
  } else {
    const bool same = bits & KEST_DI_SNAPSHOT && !(bits & (KEST_DI_REPLACED | KEST_DI_RUNS));
    *kind = same ? kKindSame : kKindOther;
  }
  return {};
}

// Sets *running for a running program. The kernel allows no write to its file, so that must be made
// again.
Result runs(uint64_t ino, bool *running) {
  const int bits = kest_idifference(handles.iscanP, ino);
  *running = bits > 0 && (bits & KEST_DI_RUNS) != 0;
  return bits < 0 ? checkFailed(ino, failed(kAskDifference)) : Result{};
}

// How the inodes of one number in both trees relate.
struct Pair {
  bool in_active = false, in_snapshot = false;
  bool same_inode = false;       // in both trees and the same file, clone state aside
  bool same_clone_kind = false;  // valid if same_inode is set
};

Result lookAtPair(uint64_t ino, Pair *pair) {
  Inode active, snap;
  if (Result r = openIfThere(handles.activeFsP, ino, &active); !r) return failed(kOpenActive, r.err);
  pair->in_active = static_cast<bool>(active);
  if (!active) return {};
  if (Result r = openIfThere(handles.oldFsP, ino, &snap); !r) return failed(kOpenSnapshot, r.err);
  pair->in_snapshot = static_cast<bool>(snap);
  pair->same_inode = snap && kest_same_file(active.get(), snap.get()) == 1;
  if (!pair->same_inode) return {};
  return sameCloneKind(active.get(), snap.get(), &pair->same_clone_kind).at(kCompareClones);
}

}  // namespace

Result checkFile(uint64_t ino, FileKind *kind) {
  Pair pair;
  if (Result r = lookAtPair(ino, &pair); !r) return checkFailed(ino, r);
  *kind = !pair.in_active                           ? kKindDeleted
          : pair.same_inode && pair.same_clone_kind ? kKindSame
                                                    : kKindOther;
  return {};
}

Result checkScanned(uint64_t ino, FileKind *kind) {
  bool known = false;
  if (Result r = knownKind(ino, &known, kind); !r || known) return r;
  if (Result r = checkFile(ino, kind); !r || *kind != kKindSame) return r;
  bool running = false;
  if (Result r = runs(ino, &running); !r) return r;
  if (running) *kind = kKindOther;
  return {};
}

bool mayBeClone(uint64_t ino) {
  constexpr int kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;
  const int bits = kest_idifference(handles.iscanP, ino);
  // A failure counts as "may be", so that the caller examines the inode.
  return bits < 0 || (bits & (kBoth | KEST_DI_REPLACED | KEST_DI_CLONE)) != kBoth;
}

Result needsRemaking(uint64_t ino, bool *remake) {
  bool known = false;
  FileKind kind = kKindSame;
  if (Result r = runs(ino, remake); !r || *remake) return r;
  if (Result r = knownKind(ino, &known, &kind); !r || known) return r;
  Pair pair;
  if (Result r = lookAtPair(ino, &pair); !r) return checkFailed(ino, r);
  *remake = pair.same_inode && !pair.same_clone_kind;
  return {};
}

namespace {

Result linksUnknown(const char *call, uint64_t ino, int rc) {
  const Result r = failed(0);
  traceLog("%s return error, rc %d, errno %d\n", call, rc, r.err);
  userMessage(Message::kInodeFailed, ino, strerror(r.err));
  return r;
}

}  // namespace

Result isHardLinked(uint64_t ino, bool *linked) {
  const int bits = kest_idifference(handles.iscanP, ino);
  if (bits < 0) return linksUnknown("checkActiveLink", ino, bits);
  *linked = bits & KEST_DI_LINKED;
  if (bits > 0) return {};
  // The inode is not in the difference, so its link count in the snapshot is that of the fileset, too.
  const kest_iattr64_t *attr = nullptr;
  if (const int rc = kest_stat_inode64(handles.iscanFromP, ino, ino + 1, &attr); rc != 0)
    return linksUnknown("checkSnapLink", ino, rc);
  *linked = attr != nullptr && !isDirectory(attr->ia_mode) && attr->ia_nlink > 1;
  return {};
}
