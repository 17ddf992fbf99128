#include "object/link_count.h"

#include <cerrno>

#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/trace_log.h"

namespace {

bool failed(const char *call, int rc) {
  traceLog("%s return error, rc %d, errno %d\n", call, rc, errno);
  // Its names would be restored as if each were a file of its own: the run must not end well.
  setFatalError(errno);
  return false;
}

}  // namespace

bool isHardLinked(uint64_t ino) {
  const int known = kest_idifference(handles.iscanP, ino);
  if (known < 0) return failed("checkActiveLink", known);
  if (known > 0) return known & KEST_DI_LINKED;
  // An inode that did not change has its names in the snapshot.
  const kest_iattr64_t *attr = nullptr;
  if (int rc = kest_stat_inode64(handles.iscanFromP, ino, ino + 1, &attr); rc != 0)
    return failed("checkSnapLink", rc);
  return attr != nullptr && !isDirectory(attr->ia_mode) && attr->ia_nlink > 1;
}
