#include "plan/entries.h"

#include <sys/stat.h>

#include "object/move_file.h"
#include "object/paths.h"
#include "plan/truncations.h"
#include "plan/walk_messages.h"
#include "records/side_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "scan/clone_state.h"
#include "scan/diff_table.h"
#include "scan/scan_pass.h"

bool isDotEntry(std::string_view name) {
  return name == "." || name == "..";
}

bool isQuotaFile(const std::string &directory, const char *name) {
  return directory == handles.rootPath &&
         kest_is_quota_file(handles.activeFsP, directory.c_str(), name) == 1;
}

Result listMissingLink(const std::string &path, uint64_t ino, bool *alsoDeleted) {
  *alsoDeleted = false;
  if (Result r = listLink(path, ino); !r) return failed(0, r.err);
  Inode snap;
  if (Result r = openInode(handles.oldFsP, ino, &snap); !r) return failed(0, r.err);
  bool clone = false;
  if (Result r = isClone(snap.get(), &clone); !r) return r;
  *alsoDeleted = clone && firstCloneListing(ino);
  return {};
}

Result fetchMovedObject(MasterLists &lists, const std::string &path, const kest_direntx64_t &entry) {
  if (Result r = lists.ListRecord(path, entry.d_ino, kOpFetch); !r) return r;
  if (isDirEntry(entry) || !inPassRange(entry.d_ino)) return {};
  // An earlier pass, or a run that died, can have moved the object aside already.
  const std::string waiting = tempLocation(entry.d_ino);
  struct stat st;
  if (Result r = statPath(waiting, &st); !r) return r.err == ENOENT ? Result{} : r;
  const DiffItem *item = findItem(entry.d_ino);
  if (item && item->type & kDiffChanged) {
    if (Result r = lists.ListRecord(waiting, entry.d_ino, kOpRestoreDiffFile); !r) return r;
  }
  return lists.ListRegMoveBack(entry.d_ino);
}

Result setAsideDirectory(MasterLists &lists, const CommonWalker &walkCommon, const AsideCodes &codes,
                         const std::string &path, uint64_t ino, bool changed, std::string *newPath) {
  if (Result r = settleTruncations(); !r) return r.at(codes.settle);
  if (Result r = moveFile(path, ino, settings.phase, newPath, false); !r) return r.at(codes.move);
  noteFormerPlace(ino, path);
  if (newPath->empty()) return {};  // its owner removed it during the walk
  if (changed) {
    if (Result r = lists.ListRecord(*newPath, ino, kOpRestoreDiffFile); !r) return r.at(codes.list);
  }
  if (Result r = walkCommon(*newPath, ino); !r) return r.at(codes.walk);
  if (settings.pass != 1) return {};
  return lists.ListDirMoveBack(ino).at(codes.moveBack);
}
