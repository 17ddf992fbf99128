#include "worker/unfinished.h"

#include <sys/stat.h>
#include <time.h>
#include <cerrno>

#include "kest.h"
#include "object/clear_flags.h"
#include "object/descriptor.h"
#include "object/object_stat.h"
#include "record/op_code.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kModificationTime = 2;

bool restoresData(const OpString &op) {
  return (op.opCode == kOpRestoreDelFile || op.opCode == kOpRestoreDiffFile) && op.length > 0;
}

}  // namespace

void markUnfinished(const std::string &path, const OpString &op) {
  if (!restoresData(op)) return;
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  kest_timestruc64_t times[4] = {};
  times[1] = {now.tv_sec, static_cast<uint32_t>(now.tv_nsec)};
  const int err = retryClearing(path, "", [&] {
    const Descriptor file(openObject(path));
    return file ? kest_fset_times(file.get(), kModificationTime, times) : -1;
  });
  traceLog("markUnfinished: path %s, err %d\n", path.c_str(), err);
}

void markIfOthersFailed(const std::string &path, const OpString &op) {
  struct stat st;
  if (restoresData(op) && statPath(workPath(kFatalError), &st) == 0) markUnfinished(path, op);
}
