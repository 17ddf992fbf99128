#include "compare/new_walk.h"

#include <cerrno>

#include "compare/dir_entry.h"
#include "compare/moved_object.h"
#include "object/junction.h"
#include "object/link_count.h"
#include "oplist/dir_lists.h"
#include "oplist/link_list.h"
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

class NewWalk {
 public:
  NewWalk(uint64_t root_ino, std::string &path, uint64_t ino)
      : rootIno_(root_ino), path_(path), ino_(ino) {}

  int code() const { return code_; }
  const std::string &failedAt() const { return failedAt_; }  // with the name of the entry

  int read() {
    Inode dir = openInode(handles.activeFsP, ino_);
    if (!dir) {
      // Dealt with in an earlier pass, or removed by its owner meanwhile.
      return errno == ENOENT ? 0 : fail(errno, 1);
    }
    for (;;) {
      if (stopSignal() != 0) return fail(errno = EINTR, 2);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddir64(dir.get(), &entry) != 0) return fail(errno, 2);
      if (!entry) return 0;
      if (isDotEntry(entry->d_name)) continue;
      traceLog("traverseNewDir: d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
               static_cast<long long>(entry->d_ino), entry->d_type, entry->d_flags);
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
    const bool junction = checkJunction(path_, &entry) > 0;
    PathName name(path_, entry.d_name);
    if (junction) {
      if (!name.ok()) return fail(-1, 21);
      return unlinkJunction(path_) == 0 ? 0 : fail(-1, 22);
    }
    if (!name.ok()) return fail(-1, 41);

    // Every new directory is gone after the first pass, so its entries are settled at once, in
    // whichever pass's range they lie.
    const bool in_range = inPassRange(entry.d_ino);
    const DiffItem *item = in_range ? findItem(entry.d_ino) : nullptr;
    bool is_new = false;
    if (in_range) {
      is_new = item && item->type & kDiffNew;
    } else {
      const int kind = checkScanned(entry.d_ino);
      if (kind < 0) return fail(errno, 2);
      if (kind == kKindDeleted) return 0;  // gone since the listing was taken
      is_new = kind == kKindOther;
    }
    const bool changed = item && item->type & kDiffChanged;
    if (is_new) return newObject(entry);
    if (isDirEntry(entry)) return snapshotDirectory(entry.d_ino, changed);
    return snapshotObject(entry.d_ino, in_range, changed);
  }

  int newObject(const kest_direntx64_t &entry) {
    if (!isDirEntry(entry)) {
      int rc = DirListRecord(rootIno_, path_, entry.d_ino, kOpDeleteFile, 0, false);
      return rc == 0 ? 0 : fail(rc, 44);
    }
    ++dirDepth;
    int rc = traverseNewDir(rootIno_, path_, entry.d_ino);
    --dirDepth;
    if (rc != 0) return fail(rc, 42);
    rc = DirListRecord(rootIno_, path_, entry.d_ino, kOpDelDir, 0, false);
    return rc == 0 ? 0 : fail(rc, 43);
  }

  int snapshotDirectory(uint64_t ino, bool changed) {
    AsideStep step = AsideStep::kNone;
    std::string new_path;
    int rc = setAsideDirectory(path_, ino, changed, &step, &new_path);
    if (rc == 0) return 0;
    const int err = errno;
    int code = 0;
    switch (step) {
      case AsideStep::kNone:
      case AsideStep::kMove:
        traceLog("traverseNewDir: moveFile %s to temp failed, ino %lld rc %d\n", path_.c_str(),
                 static_cast<long long>(ino_), rc);
        code = 5;
        break;
      case AsideStep::kList:
        code = 71;
        break;
      case AsideStep::kWalk:
        code = 0;
        break;
      case AsideStep::kMoveBack:
        code = 8;
        break;
    }
    errno = err;
    return fail(rc, code);
  }

  int snapshotObject(uint64_t ino, bool in_range, bool changed) {
    if (isHardLinked(ino)) {
      if (int rc = DirListRecord(rootIno_, path_, ino, kOpDeleteFile, 0, false)) return fail(rc, 44);
      if (in_range) {
        if (int rc = listLink(path_, ino)) return fail(rc, 44);
      }
      return 0;
    }
    if (changed) {
      if (int rc = DirListRecord(rootIno_, path_, ino, kOpRestoreDiffFile, 0, false))
        return fail(rc, 45);
    }
    if (int rc = DirListRecord(rootIno_, path_, ino, kOpMoveFile, 0, false)) return fail(rc, 46);
    if (in_range) {
      if (int rc = ListRegMoveBack(ino)) return fail(rc, 47);
    }
    return 0;
  }

  const uint64_t rootIno_;
  std::string &path_;
  const uint64_t ino_;
  int code_ = 0;
  std::string failedAt_;
};

}  // namespace

int traverseNewDir(uint64_t rootIno, std::string &path, uint64_t ino) {
  const int64_t saved_aggregate = aggregates.main.iAgg;
  traceLog("traverseNewDir: rootIno %lld, path %s, ino %lld\n", static_cast<long long>(rootIno),
           path.c_str(), static_cast<long long>(ino));
  NewWalk walk(rootIno, path, ino);
  int rc = walk.read();
  if (rc != 0) {
    int err = errno;
    traceLog("traverseNewDir: Path %s, dirDepth %d, ino %lld, pass %d, rc %d, code %d, err %d\n",
             walk.failedAt().c_str(), dirDepth, static_cast<long long>(ino), settings.pass, rc,
             walk.code(), err);
    errno = err;
  }
  aggregates.main.iAgg = saved_aggregate;
  return rc;
}
