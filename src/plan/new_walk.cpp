#include "plan/new_walk.h"

#include "object/junction.h"
#include "plan/nested.h"
#include "plan/walk_messages.h"
#include "records/aggregate.h"
#include "records/side_lists.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

enum NewStep : int {
  kOpen = 1,
  kReadEntries = 2,  // also if it is unknown whether the entry's inode is the snapshot's
  kMoveAside = 5,
  kListMoveBack = 8,
  kJunctionPathTooLong = 21,
  kUnlinkJunction = 22,
  kPathTooLong = 41,
  kWalkDirectory = 42,
  kListDirectory = 43,
  kListDeletion = 44,  // also of a hard-linked inode's name, or of its record in link.ino
  kListChanges = 45,
  kListMove = 46,
  kListRegMoveBack = 47,
  kCountNames = 48,         // of the entry's inode
  kSettleTruncations = 51,  // before a directory is moved aside
  kListAsideChanges = 71,
};

// A failed walk below a directory that was moved aside has no code.
constexpr AsideCodes kAsideCodes{.settle = kSettleTruncations,
                                 .move = kMoveAside,
                                 .list = kListAsideChanges,
                                 .walk = 0,
                                 .moveBack = kListMoveBack};

class NewWalk {
 public:
  NewWalk(MasterLists &lists, const CommonWalker &walk_common, uint64_t root_ino, std::string &path,
          uint64_t ino)
      : lists_(lists),
        walkCommon_(walk_common),
        rootIno_(root_ino),
        path_(path),
        ino_(ino),
        failedAt_(path) {}

  const std::string &failedAt() const { return failedAt_; }  // path of the failed entry

  Result read() {
    Inode dir;
    if (Result r = openIfThere(handles.activeFsP, ino_, &dir); !r) return r.at(kOpen);
    if (!dir) return {};  // an earlier pass handled it, or its owner removed it
    for (;;) {
      if (stopSignal() != 0) return failedErrno(kReadEntries, EINTR);
      const kest_direntx64_t *entry = nullptr;
      if (kest_ireaddir64(dir.get(), &entry) != 0) return failedErrno(kReadEntries);
      if (!entry) return {};
      if (isDotEntry(entry->d_name)) continue;
      traceLog("traverseNewDir: d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
               static_cast<long long>(entry->d_ino), entry->d_type, entry->d_flags);
      if (Result r = handle(*entry); !r) return r;
    }
  }

 private:
  Result handle(const kest_direntx64_t &entry) {
    const bool junction = isJunction(path_, entry);
    PathName name(path_, entry.d_name);
    if (!name.ok()) return failed(junction ? kJunctionPathTooLong : kPathTooLong, ENAMETOOLONG);
    const Result result =
        junction ? settleNested(path_, entry.d_ino).at(kUnlinkJunction) : settle(entry);
    if (!result) failedAt_ = path_;
    return result;
  }

  // The first pass removes every new directory. So it handles all its entries at once, even those whose
  // inode number belongs to a later pass.
  Result settle(const kest_direntx64_t &entry) {
    const bool in_range = inPassRange(entry.d_ino);
    const DiffItem *item = in_range ? findItem(entry.d_ino) : nullptr;
    bool is_new = item && item->type & kDiffNew;
    if (!in_range) {
      FileKind kind = kKindSame;
      if (Result r = checkScanned(entry.d_ino, &kind); !r) return failedErrno(kReadEntries, r.err);
      if (kind == kKindDeleted) return {};  // removed since the directory was read
      is_new = kind == kKindOther;
    }
    const bool changed = item && item->type & kDiffChanged;
    if (is_new) return newObject(entry);
    if (isDirEntry(entry)) return snapshotDirectory(entry.d_ino, changed);
    return snapshotObject(entry.d_ino, in_range, changed);
  }

  Result newObject(const kest_direntx64_t &entry) {
    if (!isDirEntry(entry)) return list(entry.d_ino, kOpDeleteFile, kListDeletion);
    ++lists_.dirDepth;
    const Result walked = traverseNewDir(lists_, walkCommon_, rootIno_, path_, entry.d_ino);
    --lists_.dirDepth;
    return walked ? list(entry.d_ino, kOpDelDir, kListDirectory) : walked.at(kWalkDirectory);
  }

  Result snapshotDirectory(uint64_t ino, bool changed) {
    std::string new_path;
    const Result result =
        setAsideDirectory(lists_, walkCommon_, kAsideCodes, path_, ino, changed, &new_path);
    if (result.code == kMoveAside)
      traceLog("traverseNewDir: moveFile %s to temp failed, ino %lld rc %d\n", path_.c_str(),
               static_cast<long long>(ino_), result.rc);
    return result;
  }

  Result snapshotObject(uint64_t ino, bool in_range, bool changed) {
    bool linked = false;
    if (Result r = isHardLinked(ino, &linked); !r) return r.at(kCountNames);
    if (linked) {
      // Only the name goes; phase 8 gives the inode all its names of the snapshot. If the number lies
      // outside the range, its own pass lists the inode.
      if (Result r = list(ino, kOpDeleteFile, kListDeletion); !r) return r;
      return in_range ? listLink(path_, ino).at(kListDeletion) : Result{};
    }
    if (changed) {
      if (Result r = list(ino, kOpRestoreDiffFile, kListChanges); !r) return r;
    }
    if (Result r = list(ino, kOpMoveFile, kListMove); !r) return r;
    return in_range ? lists_.ListRegMoveBack(ino).at(kListRegMoveBack) : Result{};
  }

  Result list(uint64_t ino, OpCode op, NewStep step) {
    return lists_.DirListRecord(rootIno_, path_, ino, op, false).at(step);
  }

  MasterLists &lists_;
  const CommonWalker &walkCommon_;
  const uint64_t rootIno_;
  std::string &path_;
  const uint64_t ino_;
  std::string failedAt_;
};

}  // namespace

Result traverseNewDir(MasterLists &lists, const CommonWalker &walkCommon, uint64_t rootIno,
                      std::string &path, uint64_t ino) {
  const int64_t saved_aggregate = aggregates.main.iAgg;
  traceLog("traverseNewDir: rootIno %lld, path %s, ino %lld\n", static_cast<long long>(rootIno),
           path.c_str(), static_cast<long long>(ino));
  NewWalk walk(lists, walkCommon, rootIno, path, ino);
  const Result result = walk.read();
  if (!result) {
    traceLog("traverseNewDir: Path %s, dirDepth %d, ino %lld, pass %d, rc %d, code %d, err %d\n",
             walk.failedAt().c_str(), lists.dirDepth, static_cast<long long>(ino), settings.pass,
             result.rc, result.code, result.err);
    (void)failedAt(walk.failedAt(), result);
  }
  aggregates.main.iAgg = saved_aggregate;
  return result;
}
