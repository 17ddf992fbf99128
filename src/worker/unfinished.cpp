#include "worker/unfinished.h"

#include <sys/stat.h>
#include <time.h>
#include <cerrno>

#include "kest.h"
#include "object/clear_flags.h"
#include "object/identity.h"
#include "object/object_stat.h"
#include "record/op_code.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"

namespace {

constexpr int kModificationTime = 2;

bool restoresData(const OpString &op) {
  return (op.opCode == kOpRestoreDelFile || op.opCode == kOpRestoreDiffFile) && op.length > 0;
}

// What the step failed on may be the very thing that users put in the file's place.
bool isMeant(int fd, uint64_t ino, const OpString &op) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  if (op.opCode == kOpRestoreDiffFile) return st.st_ino == ino;
  const Inode snap = openInode(handles.oldFsP, ino);
  return snap && isMadeFor(st, snap.get());
}

}  // namespace

void markUnfinished(const std::string &path, uint64_t ino, const OpString &op) {
  if (!restoresData(op)) return;
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  kest_timestruc64_t times[4] = {};
  times[1] = {now.tv_sec, static_cast<uint32_t>(now.tv_nsec)};
  const int err = retryClearing(path, "", [&] {
    const Descriptor file(openObject(path));
    if (!file) return -1;
    return isMeant(file.get(), ino, op) ? kest_fset_times(file.get(), kModificationTime, times) : 0;
  });
  traceLog("markUnfinished: path %s, err %d\n", path.c_str(), err);
}

void markIfOthersFailed(const std::string &path, uint64_t ino, const OpString &op) {
  struct stat st;
  if (restoresData(op) && statWorkFile(workPath(kFatalError), &st) == 0) markUnfinished(path, ino, op);
}
