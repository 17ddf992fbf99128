#include "worker/delete_file.h"

#include <unistd.h>
#include <cerrno>

#include "object/clear_flags.h"
#include "object/clone_attr.h"
#include "object/move_file.h"
#include "object/temp_place.h"
#include "oplist/clone_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_buffer.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kMostWaits = 20000;
constexpr useconds_t kWaitMicroseconds = 50;

int failed(const std::string &path, uint64_t ino, int rc, int code, int err) {
  traceLog("deleteFile: path %s, ino %lld, rc %d, code %d, errno %d\n", path.c_str(),
           static_cast<long long>(ino), rc, code, err);
  errno = err;
  return rc != 0 ? rc : -1;
}

// A clone is only moved aside; the clone delete list says when it goes. It is listed first, so that a
// lost worker leaves nothing aside that nobody removes. *taken: another name of the clone waits there
// already.
int setCloneAside(const std::string &path, uint64_t ino, const CloneAttr &attr, bool *taken) {
  std::string new_path = cloneDeleteLocation(ino);
  if (int rc = listClone(new_path, true, attr); rc != 0) {
    const int err = errno;
    traceLog("deleteFile: cannot list file %s into clone delete list.\n", new_path.c_str());
    return failed(path, ino, rc, 1, err);
  }
  if (int rc = moveFile(path, ino, kPhaseMain, &new_path, true); rc != 0) {
    *taken = errno == EEXIST;
    return *taken ? 0 : failed(path, ino, rc, 2, errno);
  }
  return 0;
}

}  // namespace

int deleteFile(const std::string &path, uint64_t ino) {
  CloneAttr attr;
  if (settings.phase == kPhaseMain && getCloneXattr(path, &attr, nullptr) != 0) {
    bool taken = false;
    const int rc = setCloneAside(path, ino, attr, &taken);
    if (!taken) return rc;
  }

  // The record of a clone that was set aside carries another number.
  const uint64_t expected = settings.phase == kPhaseCloneDelete ? 0 : ino;
  for (int waits = 0;;) {
    bool clearing_failed = false;
    const int err = retryClearing(
        path, "", [&] { return kest_unlink(handles.activeFsP, linkFree(path).c_str(), expected); },
        &clearing_failed);
    if (err == 0 || err == ENOENT) return 0;
    if (err != EBUSY || clearing_failed || waits == kMostWaits) {
      traceLog("deleteFile: unlink %s, ino %lld, rc %d, error %d\n", path.c_str(),
               static_cast<long long>(ino), -1, err);
      return failed(path, ino, -1, 0, err);
    }
    traceLog("deleteFile: unlink wait %d\n", ++waits);
    flushTraceLines();
    usleep(kWaitMicroseconds);
  }
}
