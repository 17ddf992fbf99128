#include "object/new_dir_list.h"

#include <cerrno>

#include "record/side_list.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

int listNewDir(const std::string &path, uint64_t ino) {
  const std::string list = workPath(kDirNew);
  const long long number = static_cast<long long>(ino);
  bool opened = false;
  const int err = appendSideRecord(list, list, ino, path, kOpCrDir, aggregates.regPend, &opened);
  if (err == 0) return 0;
  if (!opened) traceLog("listNewDir: open %s failed, ino %lld, err %d\n", list.c_str(), number, err);
  traceLog("listNewDir: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(), number, err,
           opened ? 2 : 1, err);
  errno = err;
  return err;
}
