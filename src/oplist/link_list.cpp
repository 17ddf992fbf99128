#include "oplist/link_list.h"

#include <cerrno>

#include "record/side_list.h"
#include "run/number_set.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {
NumberSet recorded;
}

int listLink(const std::string &path, uint64_t ino) {
  const long long number = static_cast<long long>(ino);
  if (recorded.contains(ino)) {
    traceLog("listLink: ino %lld is record, skip it.\n", number);
    return 0;
  }
  std::string list = workPath(kLinkIno);
  bool opened = false;
  int err = appendSideRecord(list, list, ino, path, kOpLinkFile, aggregates.regPend, &opened);
  if (!opened) traceLog("listLink: open %s failed, ino %lld, err %d\n", list.c_str(), number, err);
  traceLog("listLink: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(), number, err ? -1 : 0,
           err == 0 ? 0
           : opened ? 2
                    : 1,
           err);
  if (err != 0) {
    errno = err;
    return -1;
  }
  recorded.insert(ino);
  return 0;
}
