#include "worker/delete_file.h"

#include <unistd.h>

#include <cerrno>

#include "object/clones.h"
#include "object/move_file.h"
#include "object/name_calls.h"
#include "records/side_lists.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "worker/busy_wait.h"

namespace {

enum DeleteStep : int {
  kUnlink = 0,
  kListClone = 1,
  kMoveClone = 2,
  kReadClone = 3,
};

// Moves a clone aside; the clone delete list deletes it later. Lists it before the move, so that a
// worker which dies in between leaves no unlisted clone in the work directory. *taken: another name of
// the clone is already there.
Result setCloneAside(const Record &record, const CloneAttr &attr, bool *taken) {
  std::string new_path = cloneDeleteLocation(record.ino);
  if (Result r = listClone(new_path, true, attr); !r) {
    traceLog("deleteFile: cannot list file %s into clone delete list.\n", new_path.c_str());
    return r.at(kListClone);
  }
  const Result moved = moveFile(record.path, record.ino, kPhaseMain, &new_path, true);
  *taken = !moved && moved.err == EEXIST;
  return *taken ? Result{} : moved.at(kMoveClone);
}

// Unlinks the name; waits while another process works on the file (EBUSY).
Result unlinkWhenFree(const Record &record) {
  // The record of a clone in a delete list carries its parent's inode number, so it cannot be checked.
  const uint64_t expected = settings.phase == kPhaseCloneDelete ? 0 : record.ino;
  for (int waits = 0;;) {
    bool clearing_failed = false;
    const Result result = unlinkName(record.path, expected, &clearing_failed);
    if (result || result.err == ENOENT) return {};
    if (result.err != EBUSY || clearing_failed || waits == kMostWaits) {
      traceLog("deleteFile: unlink %s, ino %lld, rc %d, error %d\n", record.path.c_str(),
               static_cast<long long>(record.ino), -1, result.err);
      return failed(kUnlink, result.err);
    }
    traceLog("deleteFile: unlink wait %d\n", ++waits);
    flushTraceLines();
    usleep(kWaitMicroseconds);
  }
}

Result remove(const Record &record) {
  CloneAttr attr;
  bool clone = false, taken = false;
  if (settings.phase == kPhaseMain) {
    // A clone that is not recognised would be removed before the clones below it.
    bool carries = false;
    Result r = carriesClone(record.path, &carries);
    if (carries) r = getCloneXattr(record.path, &clone, &attr);
    if (!r && r.err != ENOENT) return failed(kReadClone, r.err);
  }
  if (clone) {
    if (Result r = setCloneAside(record, attr, &taken); !r || !taken) return r;
  }
  return unlinkWhenFree(record);
}

}  // namespace

Result deleteFile(const Record &record) {
  const Result result = remove(record);
  if (!result) {
    traceLog("deleteFile: path %s, ino %lld, rc %d, code %d, errno %d\n", record.path.c_str(),
             static_cast<long long>(record.ino), result.rc, result.code, result.err);
  }
  return result;
}
