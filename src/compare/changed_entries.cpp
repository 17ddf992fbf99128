// The first read of a common directory.
#include <sys/stat.h>
#include <cerrno>

#include "cfgmgr/messages.h"
#include "compare/common_dir.h"
#include "compare/deleted_walk.h"
#include "compare/dir_entry.h"
#include "compare/missing_link.h"
#include "compare/moved_object.h"
#include "object/junction.h"
#include "object/link_count.h"
#include "object/object_stat.h"
#include "object/path_files.h"
#include "oplist/dir_lists.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "record/aggregate.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

class ChangedEntries {
 public:
  explicit ChangedEntries(CommonDir &dir) : dir_(dir) {}

  int read() {
    int64_t count = 0;
    for (;;) {
      if (stopSignal() != 0) return fail(errno = EINTR, 3);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddirx64(dir_.active.get(), handles.iscanP, &entry) != 0) return fail(errno, 3);
      if (!entry) return 0;
      if (++count % 1000 == 0 && settings.phase == kPhaseMaster) {
        userMessage(Message::kEntriesProcessed, formatTimeStamp(), count);
      }
      if (isDotEntry(entry->d_name) || isQuotaFile(dir_.path, entry->d_name)) continue;
      const bool in_range = inPassRange(entry->d_ino);
      if (!isDirEntry(*entry) && !in_range) continue;
      traceLog("traverseCommonDir:[1] d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
               static_cast<long long>(entry->d_ino), entry->d_type, entry->d_flags);
      int rc = isSnapEntry(*entry) ? onlyInSnapshot(*entry, in_range) : onlyInActive(*entry, in_range);
      if (rc != 0) return rc;
    }
  }

 private:
  int fail(int rc, int code) {
    dir_.code = code;
    return rc != 0 ? rc : -1;
  }

  int onlyInSnapshot(const kest_direntx64_t &entry, bool in_range) {
    PathName name(dir_.path, entry.d_name);
    if (!name.ok()) return fail(-1, 21);
    if (checkJunction(dir_.path, &entry) > 0) {
      traceLog("traverseCommonDir: skep junction %s only in snapshot.\n", dir_.path.c_str());
      return 0;
    }
    if (!isDirEntry(entry) && isHardLinked(entry.d_ino)) {
      bool also_deleted = false;
      if (int rc = listMissingLink(dir_.path, entry.d_ino, &also_deleted)) return fail(rc, 22);
      if (!also_deleted) return 0;
      int rc = ListRecord(dir_.path, entry.d_ino, kOpRestoreDelFile, 0);
      return rc == 0 ? 0 : fail(rc, 51);
    }
    int kind = kKindSame;
    if (in_range) {
      const DiffItem *item = findItem(entry.d_ino);
      if (item && item->type & (kDiffDeleted | kDiffNew)) kind = kKindDeleted;
    } else {
      kind = checkScanned(entry.d_ino);
      if (kind < 0) {
        traceLog("traverseCommonDir: checkFile failed: %lld\n", static_cast<long long>(entry.d_ino));
        return fail(-1, 4);
      }
    }
    if (kind == kKindSame) {
      int rc = fetchMovedObject(dir_.path, entry);
      return rc == 0 ? 0 : fail(rc, 41);
    }
    if (!isDirEntry(entry)) {
      int rc = ListRecord(dir_.path, entry.d_ino, kOpRestoreDelFile, 0);
      return rc == 0 ? 0 : fail(rc, 51);
    }
    return deletedDirectory(entry.d_ino);
  }

  int deletedDirectory(uint64_t ino) {
    ++dirDepth;
    ++aggregates.main.iAgg;
    std::string target = dir_.path;
    if (int rc = chooseTarget(ino, &target)) return rc;
    if (int rc = ListRecord(target, ino, kOpCrDir, 0)) return fail(rc, 42);
    if (int rc = traverseDelDir(ino, target, ino)) {
      traceLog("traverseCommonDir: traverseDelDir failed, path %s, ino %lld\n", target.c_str(),
               static_cast<long long>(ino));
      return fail(rc, 5);
    }
    if (--dirDepth == 0) aggregates.main.uCount = 0;
    return 0;
  }

  // Where the directory is made again. While more passes follow it waits in its temporary location:
  // nothing that a pass made may stand in the tree before the last one is over.
  int chooseTarget(uint64_t ino, std::string *target) {
    const std::string own_path = *target;
    struct stat st;
    if (settings.pass > 1) {
      const std::string waiting = tempLocation(ino);
      if (statPath(waiting, &st) == 0 || errno != ENOENT) *target = waiting;
      return 0;
    }
    const bool taken = statPath(own_path, &st) == 0;
    if (!taken && errno != ENOENT) return fail(errno, 4);
    if (!taken && scan.finalPass) return 0;
    *target = tempLocation(ino);
    if (int rc = ListDirMoveBack(ino)) return fail(rc, 411);
    if (int rc = fetchFile(own_path, ino)) return fail(rc, 41);
    return 0;
  }

  int onlyInActive(const kest_direntx64_t &entry, bool in_range) {
    if (checkJunction(dir_.path, &entry) > 0) {
      PathName name(dir_.path, entry.d_name);
      if (!name.ok()) return fail(-1, 52);
      return unlinkJunction(dir_.path) == 0 ? 0 : fail(-1, 53);
    }
    if (in_range) {
      DiffItem *item = findItem(entry.d_ino);
      if (!item) {
        if (addItem(entry.d_ino, entry.d_gen, kDiffMoved) != 0) return fail(ENOMEM, 6);
      } else if (!(item->type & kDiffNew)) {
        item->type |= kDiffMoved;
      }
      if (!isDirEntry(entry)) dir_.newNames.insert(entry.d_name);
      return 0;
    }
    int kind = checkScanned(entry.d_ino);
    if (kind < 0) {
      traceLog("traverseCommonDir: checkFile failed, %lld\n", static_cast<long long>(entry.d_ino));
      return fail(-1, 6);
    }
    if (kind == kKindDeleted) return 0;  // gone since the listing was taken
    const uint8_t flag = kind == kKindSame ? kDiffMoved : kDiffNew;
    if (addItem(entry.d_ino, entry.d_gen, flag) != 0) return fail(ENOMEM, 6);
    return 0;
  }

  CommonDir &dir_;
};

}  // namespace

int readChangedEntries(CommonDir &dir) {
  return ChangedEntries(dir).read();
}
