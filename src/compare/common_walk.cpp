#include "compare/common_walk.h"

#include <sys/stat.h>
#include <cerrno>

#include "compare/common_dir.h"
#include "object/object_stat.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

WalkCount walkCount;

namespace {

void tracePassedOver() {
  traceLog(
      "traverseCommonDir: pass %d, %lld directories, %lld entries lead to changes, others passed "
      "over\n",
      settings.pass, walkCount.directories, walkCount.entries);
  walkCount = {};
}

int readBoth(CommonDir &dir) {
  dir.active = openInode(handles.activeFsP, dir.ino);
  if (!dir.active) {
    dir.code = 2;
    return errno;
  }
  ++walkCount.directories;
  int rc = readChangedEntries(dir);
  return rc == 0 ? readLeadingEntries(dir) : rc;
}

}  // namespace

int traverseCommonDir(const std::string &path, uint64_t ino) {
  CommonDir dir{path, ino, {}, {}, 0};
  int rc = kest_leads_to_change(handles.iscanP, ino);
  if (rc == 0) return 0;
  if (rc > 0) {
    traceLog("traverseCommonDir: Path %s, ino %lld\n", path.c_str(), static_cast<long long>(ino));
    rc = readBoth(dir);
  } else {
    dir.code = 2;
    rc = errno;
  }
  if (rc != 0) {
    int err = errno;
    traceLog("traverseCommonDir: path %s, ino %lld, rc %d, code %d, error %d\n", path.c_str(),
             static_cast<long long>(ino), rc, dir.code, err);
    errno = err;
  } else if (ino == handles.rootIno) {
    tracePassedOver();
  }
  return rc;
}

int walkMovedDirs() {
  // The walk can list further directories: by number of those that were there when it began.
  const size_t count = listedDirMoves().size();
  for (size_t i = 0; i < count; ++i) {
    const uint64_t ino = listedDirMoves()[i];
    const std::string waiting = tempLocation(ino);
    const int kind = checkFile(ino);
    if (kind < 0) return -1;
    struct stat st;
    if (kind != kKindSame) continue;
    if (statPath(waiting, &st) != 0) {
      if (errno == ENOENT) continue;
      return -1;
    }
    if (st.st_ino != ino) continue;
    const DiffItem *item = inPassRange(ino) ? findItem(ino) : nullptr;
    if (item && item->type & kDiffChanged) {
      if (int rc = ListRecord(waiting, ino, kOpRestoreDiffFile, 0)) return rc;
    }
    if (int rc = traverseCommonDir(waiting, ino)) return rc;
  }
  tracePassedOver();
  return 0;
}
