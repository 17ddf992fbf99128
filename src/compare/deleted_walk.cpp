#include "compare/deleted_walk.h"

#include <cerrno>

#include "compare/dir_entry.h"
#include "compare/missing_link.h"
#include "compare/moved_object.h"
#include "object/junction.h"
#include "object/link_count.h"
#include "oplist/dir_lists.h"
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

class DeletedWalk {
 public:
  DeletedWalk(uint64_t root_ino, std::string &path) : rootIno_(root_ino), path_(path) {}

  int code() const { return code_; }
  const std::string &failedAt() const { return failedAt_; }  // with the name of the entry

  int read(uint64_t ino) {
    Inode dir = openInode(handles.oldFsP, ino);
    if (!dir) return fail(errno, 2);
    aggregates.main.iAgg = 1;
    for (;;) {
      if (stopSignal() != 0) return fail(errno = EINTR, 3);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddir64(dir.get(), &entry) != 0) return fail(errno, 3);
      if (!entry) return 0;
      if (int rc = handle(*entry)) return rc;
    }
  }

 private:
  int fail(int rc, int code) {
    code_ = code;
    failedAt_ = path_;
    return rc != 0 ? rc : -1;
  }

  int handle(const kest_direntx64_t &entry) {
    const bool in_range = inPassRange(entry.d_ino);
    if (isDotEntry(entry.d_name) || (!in_range && !isDirEntry(entry))) return 0;
    traceLog("traverseDelDir: d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry.d_name,
             static_cast<long long>(entry.d_ino), entry.d_type, entry.d_flags);
    if (checkJunction(path_, &entry) > 0) {
      traceLog("traverseDelDir: skip junction %s in deleted dir %s\n", entry.d_name, path_.c_str());
      return 0;
    }
    PathName name(path_, entry.d_name);
    if (!name.ok()) return fail(-1, 41);

    bool lives_on = false;
    if (in_range) {
      const DiffItem *item = findItem(entry.d_ino);
      if (!item) return inconsistent(entry.d_ino);
      if (!isDirEntry(entry) && isHardLinked(entry.d_ino)) {
        bool also_deleted = false;
        if (int rc = listMissingLink(path_, entry.d_ino, &also_deleted)) return fail(rc, 51);
        return also_deleted ? deletedObject(entry.d_ino) : 0;
      }
      lives_on = item->type & (kDiffChanged | kDiffMoved);
    } else {
      const int kind = checkScanned(entry.d_ino);
      if (kind < 0) return fail(errno, 8);
      lives_on = kind == kKindSame;
    }
    if (lives_on) {
      int rc = fetchMovedObject(path_, entry);
      return rc == 0 ? 0 : failTraced(rc, 9, "record FETCH failed", entry.d_ino);
    }
    return isDirEntry(entry) ? subdirectory(entry.d_ino) : deletedObject(entry.d_ino);
  }

  int deletedObject(uint64_t ino) {
    int rc = DirListRecord(rootIno_, path_, ino, kOpRestoreDelFile, 0, true);
    return rc == 0 ? 0 : failTraced(rc, 6, "record COPY failed", ino);
  }

  int subdirectory(uint64_t ino) {
    if (settings.pass == 1) {
      if (int rc = DirListRecord(rootIno_, path_, ino, kOpCrDir, 0, true)) {
        return failTraced(rc, 7, "record CRDIR failed", ino);
      }
    }
    ++dirDepth;
    int rc = traverseDelDir(rootIno_, path_, ino);
    --dirDepth;
    return rc == 0 ? 0 : failTraced(rc, 8, "failed", ino);
  }

  int inconsistent(uint64_t ino) {
    traceLog("travserseDelDir: ino %lld path %s\n", static_cast<long long>(ino), path_.c_str());
    dumpDiffTable();
    errno = EINVAL;
    return fail(-1, 5);
  }

  int failTraced(int rc, int code, const char *what, uint64_t ino) {
    int err = errno;
    traceLog("travserseDelDir: %s, path %s, ino %lld\n", what, path_.c_str(),
             static_cast<long long>(ino));
    errno = err;
    return fail(rc, code);
  }

  const uint64_t rootIno_;
  std::string &path_;
  int code_ = 0;
  std::string failedAt_;
};

}  // namespace

int traverseDelDir(uint64_t rootIno, std::string &path, uint64_t ino) {
  const int64_t saved_aggregate = aggregates.main.iAgg;
  DeletedWalk walk(rootIno, path);
  int rc = walk.read(ino);
  if (rc != 0) {
    int err = errno;
    traceLog("traverseDelDir: rootIno %lld, path %s\n", static_cast<long long>(rootIno),
             walk.failedAt().c_str());
    traceLog("traverseDelDir: ino %lld, rc %d, code %d, err %d\n", static_cast<long long>(ino), rc,
             walk.code(), err);
    errno = err;
  }
  aggregates.main.iAgg = saved_aggregate;
  return rc;
}
