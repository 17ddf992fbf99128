#include "worker/clone_restore.h"

#include <cerrno>

#include "oplist/clone_lists.h"
#include "run/trace_log.h"

int cloneFile(const std::string &path, uint64_t ino) {
  const int rc = listClone(path, false);
  const int err = errno;
  traceLog("cloneFile: path %s, ino %lld, rc %d, error %d\n", path.c_str(), static_cast<long long>(ino),
           rc, err);
  errno = err;
  return rc;
}
