#include "scan/same_file.h"

#include <cerrno>

#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/clone_state.h"

namespace {

int failed(uint64_t ino, int code) {
  const int err = errno;
  traceLog("checkFile: ino %lld, type %d, rc %d, code %d, err %d\n", static_cast<long long>(ino), 0, -1,
           code, err);
  errno = err;
  return -1;
}

constexpr int kUnknown = -2;

// What the difference knows in the first pass: a FileKind, -1 with errno, or kUnknown where the inodes
// themselves must be asked.
int knownKind(uint64_t ino) {
  if (settings.pass != 1) return kUnknown;
  const int known = kest_idifference(handles.iscanP, ino);
  if (known < 0) return failed(ino, 4);
  if (known == 0 || known & KEST_DI_CLONE) return kUnknown;
  if (!(known & KEST_DI_ACTIVE)) return kKindDeleted;
  return known & KEST_DI_SNAPSHOT && !(known & KEST_DI_REPLACED) ? kKindSame : kKindOther;
}

}  // namespace

int checkScanned(uint64_t ino) {
  const int known = knownKind(ino);
  return known == kUnknown ? checkFile(ino) : known;
}

bool mayBeClone(uint64_t ino) {
  constexpr int kBoth = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;
  const int known = kest_idifference(handles.iscanP, ino);
  return known < 0 || (known & (kBoth | KEST_DI_REPLACED | KEST_DI_CLONE)) != kBoth;
}

int checkFile(uint64_t ino) {
  Inode active = openInode(handles.activeFsP, ino);
  if (!active) return errno == ENOENT ? kKindDeleted : failed(ino, 1);
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return errno == ENOENT ? kKindOther : failed(ino, 2);
  if (kest_same_file(active.get(), snap.get()) != 1) return kKindOther;
  const int same = sameCloneKind(active.get(), snap.get());
  if (same < 0) return failed(ino, 3);
  return same ? kKindSame : kKindOther;
}

int mustBeRemade(uint64_t ino) {
  if (const int known = knownKind(ino); known != kUnknown) return known < 0 ? -1 : 0;
  Inode active = openInode(handles.activeFsP, ino);
  if (!active) return errno == ENOENT ? 0 : failed(ino, 1);
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return errno == ENOENT ? 0 : failed(ino, 2);
  if (kest_same_file(active.get(), snap.get()) != 1) return 0;
  const int same = sameCloneKind(active.get(), snap.get());
  return same < 0 ? failed(ino, 3) : !same;
}
