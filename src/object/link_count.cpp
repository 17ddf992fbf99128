#include "object/link_count.h"

#include <cerrno>

#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/trace_log.h"

namespace {

uint32_t linksIn(kest_iscan_t *scan_of, uint64_t ino) {
  const kest_iattr64_t *attr = nullptr;
  if (int rc = kest_stat_inode64(scan_of, ino, ino + 1, &attr); rc != 0) {
    traceLog("checkActiveLink return error, rc %d, errno %d\n", rc, errno);
    // Its names would be restored as if each were a file of its own: the run must not end well.
    setFatalError(errno);
    return 0;
  }
  if (attr == nullptr || isDirectory(attr->ia_mode) || attr->ia_nlink < 2) return 0;
  return static_cast<uint32_t>(attr->ia_nlink);
}

}  // namespace

uint32_t checkActiveLink(uint64_t ino) {
  return linksIn(handles.iscanP, ino);
}

uint32_t checkSnapLink(uint64_t ino) {
  return linksIn(handles.iscanFromP, ino);
}
