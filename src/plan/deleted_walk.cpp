#include "plan/deleted_walk.h"

#include "object/junction.h"
#include "plan/entries.h"
#include "plan/walk_messages.h"
#include "records/aggregate.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

enum DeletedStep : int {
  kOpen = 2,
  kReadEntries = 3,
  kNoItem = 5,  // the difference does not know an inode that only the snapshot has
  kListDeletedFile = 6,
  kListDirectory = 7,
  kWalkDirectory = 8,  // also if it is unknown whether the entry's inode still exists
  kFetchMoved = 9,
  kPathTooLong = 41,
  kListLinks = 51,
  kCountNames = 52,  // of the entry's inode
};

class DeletedWalk {
 public:
  DeletedWalk(MasterLists &lists, uint64_t root_ino, std::string &path)
      : lists_(lists), rootIno_(root_ino), path_(path), failedAt_(path) {}

  const std::string &failedAt() const { return failedAt_; }  // path of the failed entry

  Result read(uint64_t ino) {
    Inode dir;
    if (Result r = openInode(handles.oldFsP, ino, &dir); !r) return r.at(kOpen);
    // Each set numbers its aggregates from 1. The caller restores the number of opList.
    aggregates.main.iAgg = 1;
    for (;;) {
      if (stopSignal() != 0) return failedErrno(kReadEntries, EINTR);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddir64(dir.get(), &entry) != 0) return failedErrno(kReadEntries);
      if (!entry) return {};
      if (Result r = handle(*entry); !r) return r;
    }
  }

 private:
  Result handle(const kest_direntx64_t &entry) {
    const bool in_range = inPassRange(entry.d_ino);
    // A non-directory belongs to the pass of its number, but a directory can lead to objects of any
    // pass.
    if (isDotEntry(entry.d_name) || (!in_range && !isDirEntry(entry))) return {};
    traceLog("traverseDelDir: d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry.d_name,
             static_cast<long long>(entry.d_ino), entry.d_type, entry.d_flags);
    // A snapshot has only an empty stub in place of a nested fileset, so there is nothing to make.
    if (isJunction(path_, entry)) {
      traceLog("traverseDelDir: skip junction %s in deleted dir %s\n", entry.d_name, path_.c_str());
      return {};
    }
    PathName name(path_, entry.d_name);
    if (!name.ok()) return failed(kPathTooLong, ENAMETOOLONG);
    const Result result = in_range ? ofThisPass(entry) : ofOtherPass(entry);
    if (!result) failedAt_ = path_;
    return result;
  }

  Result ofThisPass(const kest_direntx64_t &entry) {
    const uint64_t ino = entry.d_ino;
    const DiffItem *item = findItem(ino);
    // The difference contains everything below a deleted directory. Without this failure the object
    // would silently be missing.
    if (!item) {
      traceLog("travserseDelDir: ino %lld path %s\n", static_cast<long long>(ino), path_.c_str());
      dumpDiffTable();
      return failed(kNoItem, EINVAL);
    }
    bool linked = false;
    if (!isDirEntry(entry))
      if (Result r = isHardLinked(ino, &linked); !r) return r.at(kCountNames);
    if (linked) {
      bool also_deleted = false;
      if (Result r = listMissingLink(path_, ino, &also_deleted); !r) return r.at(kListLinks);
      return also_deleted ? deletedObject(ino) : Result{};
    }
    return settle(entry, item->type & (kDiffChanged | kDiffMoved));
  }

  Result ofOtherPass(const kest_direntx64_t &entry) {
    FileKind kind = kKindSame;
    if (Result r = checkScanned(entry.d_ino, &kind); !r) return failedErrno(kWalkDirectory, r.err);
    return settle(entry, kind == kKindSame);
  }

  Result settle(const kest_direntx64_t &entry, bool lives_on) {
    if (lives_on)
      return traced(fetchMovedObject(lists_, path_, entry).at(kFetchMoved), "record FETCH failed",
                    entry.d_ino);
    return isDirEntry(entry) ? subdirectory(entry.d_ino) : deletedObject(entry.d_ino);
  }

  Result deletedObject(uint64_t ino) {
    const Result listed = lists_.DirListRecord(rootIno_, path_, ino, kOpRestoreDelFile, true);
    return traced(listed.at(kListDeletedFile), "record COPY failed", ino);
  }

  Result subdirectory(uint64_t ino) {
    // Only the first pass makes directories; later passes visit them for their contents.
    if (settings.pass == 1) {
      const Result listed = lists_.DirListRecord(rootIno_, path_, ino, kOpCrDir, true);
      if (!listed) return traced(listed.at(kListDirectory), "record CRDIR failed", ino);
    }
    ++lists_.dirDepth;
    const Result walked = traverseDelDir(lists_, rootIno_, path_, ino);
    --lists_.dirDepth;
    return traced(walked.at(kWalkDirectory), "failed", ino);
  }

  // Returns the result, after a trace line if it is a failure.
  Result traced(const Result &result, const char *what, uint64_t ino) {
    if (!result)
      traceLog("travserseDelDir: %s, path %s, ino %lld\n", what, path_.c_str(),
               static_cast<long long>(ino));
    return result;
  }

  MasterLists &lists_;
  const uint64_t rootIno_;
  std::string &path_;
  std::string failedAt_;
};

}  // namespace

Result traverseDelDir(MasterLists &lists, uint64_t rootIno, std::string &path, uint64_t ino) {
  const int64_t saved_aggregate = aggregates.main.iAgg;
  DeletedWalk walk(lists, rootIno, path);
  const Result result = walk.read(ino);
  if (!result) {
    traceLog("traverseDelDir: rootIno %lld, path %s\n", static_cast<long long>(rootIno),
             walk.failedAt().c_str());
    traceLog("traverseDelDir: ino %lld, rc %d, code %d, err %d\n", static_cast<long long>(ino),
             result.rc, result.code, result.err);
    (void)failedAt(walk.failedAt(), result);
  }
  aggregates.main.iAgg = saved_aggregate;
  return result;
}
