#include "compare/moved_object.h"

#include <sys/stat.h>
#include <cerrno>

#include "compare/common_walk.h"
#include "compare/dir_entry.h"
#include "object/move_file.h"
#include "object/object_stat.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"
#include "scan/scan_pass.h"

int fetchMovedObject(const std::string &path, const kest_direntx64_t &entry) {
  if (int rc = ListRecord(path, entry.d_ino, kOpFetch, 0)) return rc;
  if (isDirEntry(entry) || !inPassRange(entry.d_ino)) return 0;
  const std::string waiting = tempLocation(entry.d_ino);
  struct stat st;
  if (statPath(waiting, &st) != 0) return errno == ENOENT ? 0 : errno;
  const DiffItem *item = findItem(entry.d_ino);
  if (item && item->type & kDiffChanged) {
    if (int rc = ListRecord(waiting, entry.d_ino, kOpRestoreDiffFile, 0)) return rc;
  }
  return ListRegMoveBack(entry.d_ino);
}

int setAsideDirectory(const std::string &path, uint64_t ino, bool changed, AsideStep *step,
                      std::string *newPath) {
  *step = AsideStep::kMove;
  newPath->clear();
  if (int rc = moveFile(path, ino, settings.phase, newPath, false)) return rc;
  if (newPath->empty()) return 0;  // its owner removed it while the walk was on its way
  *step = AsideStep::kList;
  if (changed) {
    if (int rc = ListRecord(*newPath, ino, kOpRestoreDiffFile, 0)) return rc;
  }
  *step = AsideStep::kWalk;
  if (int rc = traverseCommonDir(*newPath, ino)) return rc;
  *step = AsideStep::kMoveBack;
  if (settings.pass == 1) {
    if (int rc = ListDirMoveBack(ino)) return rc;
  }
  *step = AsideStep::kNone;
  return 0;
}
