// The second read of a common directory.
#include <cerrno>

#include "compare/common_dir.h"
#include "compare/common_walk.h"
#include "compare/dir_entry.h"
#include "compare/missing_link.h"
#include "compare/moved_object.h"
#include "compare/new_walk.h"
#include "object/junction.h"
#include "object/link_count.h"
#include "oplist/dir_lists.h"
#include "oplist/link_list.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "record/aggregate.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

class LeadingEntries {
 public:
  explicit LeadingEntries(CommonDir &dir) : dir_(dir) {}

  int read() {
    for (;;) {
      if (stopSignal() != 0) return fail(errno = EINTR, 7);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddirc64(dir_.active.get(), handles.iscanP, &entry) != 0) return fail(errno, 7);
      if (!entry) return 0;
      if (isQuotaFile(dir_.path, entry->d_name)) continue;
      ++walkCount.entries;
      traceLog("traverseCommonDir:[2] d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
               static_cast<long long>(entry->d_ino), entry->d_type, entry->d_flags);
      if (int rc = handle(*entry)) return rc;
    }
  }

 private:
  int fail(int rc, int code) {
    dir_.code = code;
    return rc != 0 ? rc : -1;
  }

  int handle(const kest_direntx64_t &entry) {
    PathName name(dir_.path, entry.d_name);
    if (!name.ok()) return fail(-1, 71);
    if (dir_.path == settings.shareDir) {
      if (settings.Verb) traceLog("Skip shareDir. Path %s\n", dir_.path.c_str());
      return 0;
    }
    if (checkJunction(dir_.path, &entry) > 0) {
      return unlinkJunction(dir_.path) == 0 ? 0 : fail(-1, 711);
    }
    if (isDirEntry(entry)) return directory(entry.d_ino);
    // Without an item the object is unchanged or belongs to another pass, however many names it has.
    DiffItem *item = inPassRange(entry.d_ino) ? findItem(entry.d_ino) : nullptr;
    if (!item) return 0;
    if (item->type & kDiffNew && dir_.newNames.count(entry.d_name) == 0) {
      const int remake = mustBeRemade(entry.d_ino);
      if (remake < 0) return fail(-1, 6);
      if (remake) return remakeFile(entry.d_ino);
    }
    return isHardLinked(entry.d_ino) ? hardLinked(entry, *item) : singleName(entry.d_ino, *item);
  }

  // The snapshot's own name of a file that has to be made anew.
  int remakeFile(uint64_t ino) {
    if (int rc = ListRecord(dir_.path, ino, kOpDeleteFile, 0)) return fail(rc, 73);
    bool listed = true;
    if (isHardLinked(ino)) {
      if (int rc = listMissingLink(dir_.path, ino, &listed)) return fail(rc, 72);
    }
    if (listed) {
      if (int rc = ListRecord(dir_.path, ino, kOpRestoreDelFile, 0)) return fail(rc, 51);
    }
    // Removing and making the entry changes the times of a directory that may be as it was.
    if (dirListed_ || dir_.ino == handles.rootIno) return 0;
    dirListed_ = true;
    std::string directory = dir_.path;
    cutPath(directory);
    int rc = ListRecord(directory, dir_.ino, kOpRestoreDiffFile, 0);
    return rc == 0 ? 0 : fail(rc, 9);
  }

  int directory(uint64_t ino) {
    // Directories are looked up whatever their number: the first read adds items for those out of
    // range.
    const DiffItem *item = findItem(ino);
    const uint8_t flags = item ? item->type : 0;
    if (flags & kDiffNew) return newDirectory(ino);
    if (flags & kDiffMoved) return movedDirectory(ino, flags & kDiffChanged);
    if (flags & kDiffChanged) {
      if (int rc = ListRecord(dir_.path, ino, kOpRestoreDiffFile, 0)) {
        traceLog("traverseCommonDir: ListRecord failed, path %s, ino %lld\n", dir_.path.c_str(),
                 static_cast<long long>(ino));
        return fail(rc, 9);
      }
    }
    if (int rc = traverseCommonDir(dir_.path, ino)) {
      traceLog("traverseCommonDir: traverseCommonDir failed, path %s, ino %lld\n", dir_.path.c_str(),
               static_cast<long long>(ino));
      return fail(rc, 10);
    }
    return 0;
  }

  int newDirectory(uint64_t ino) {
    // The lists of a new top directory are filed by the depth below it, wherever this walk stands
    // itself.
    const int32_t depth = dirDepth;
    if (depth == 0) ++aggregates.main.iAgg;
    dirDepth = 1;
    int rc = traverseNewDir(ino, dir_.path, ino);
    dirDepth = depth;
    if (rc != 0) return fail(rc, 12);
    if (int err = ListRecord(dir_.path, ino, kOpDelDir, 0)) return fail(err, 13);
    if (dirDepth == 0) aggregates.main.uCount = 0;
    return 0;
  }

  int movedDirectory(uint64_t ino, bool changed) {
    AsideStep step = AsideStep::kNone;
    std::string new_path;
    const long long number = static_cast<long long>(ino);
    int rc = setAsideDirectory(dir_.path, ino, changed, &step, &new_path);
    if (rc == 0) return 0;
    const int err = errno;
    int code = 0;
    switch (step) {
      case AsideStep::kNone:
      case AsideStep::kMove:
        traceLog("traverseCommonDir: moveFile failed, path %s, ino %lld, phase %d, newPath %s\n",
                 dir_.path.c_str(), number, settings.phase, new_path.c_str());
        code = 8;
        break;
      case AsideStep::kList:
        traceLog("traverseCommonDir: ListRecord failed, path %s, ino %lld\n", dir_.path.c_str(),
                 number);
        code = 9;
        break;
      case AsideStep::kWalk:
        traceLog("traverseCommonDir: traverseCommonDir failed, path %s, ino %lld\n", new_path.c_str(),
                 number);
        code = 10;
        break;
      case AsideStep::kMoveBack:
        traceLog("traverseCommonDir: ListDirMoveBack failed, ino %lld\n", number);
        code = 11;
        break;
    }
    errno = err;
    return fail(rc, code);
  }

  // Names of a hard-linked inode are judged one by one: a wrong one goes and comes back from link.ino,
  // one that is the snapshot's own stays, and the inode's changes are restored through one of those.
  int hardLinked(const kest_direntx64_t &entry, DiffItem &item) {
    const uint64_t ino = entry.d_ino;
    if (item.type & kDiffNew || dir_.newNames.count(entry.d_name) != 0) {
      if (int rc = ListRecord(dir_.path, ino, kOpDeleteFile, 0)) return fail(rc, 73);
      if (!(item.type & kDiffNew)) {
        if (int rc = listLink(dir_.path, ino)) return fail(rc, 72);
      }
      return 0;
    }
    if (item.type & kDiffChanged) {
      if (int rc = ListRecord(dir_.path, ino, kOpRestoreDiffFile, 0)) return fail(rc, 74);
      item.type &= static_cast<uint8_t>(~kDiffChanged);
    }
    return 0;
  }

  int singleName(uint64_t ino, const DiffItem &item) {
    if (item.type & kDiffNew) {
      if (int rc = ListRecord(dir_.path, ino, kOpDeleteFile, 0)) return fail(rc, 73);
    }
    if (item.type & kDiffChanged) {
      if (int rc = ListRecord(dir_.path, ino, kOpRestoreDiffFile, 0)) return fail(rc, 74);
    }
    if (item.type & kDiffMoved) {
      if (int rc = ListRecord(dir_.path, ino, kOpMoveFile, 0)) return fail(rc, 75);
      if (int rc = ListRegMoveBack(ino)) return fail(rc, 76);
    }
    return 0;
  }

  CommonDir &dir_;
  bool dirListed_ = false;  // for its own attributes, because of an entry that is made anew
};

}  // namespace

int readLeadingEntries(CommonDir &dir) {
  return LeadingEntries(dir).read();
}
