#include "plan/walk.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

#include "messages/messages.h"
#include "object/junction.h"
#include "object/move_file.h"
#include "object/paths.h"
#include "object/places.h"
#include "plan/deleted_walk.h"
#include "plan/entries.h"
#include "plan/nested.h"
#include "plan/new_walk.h"
#include "plan/truncations.h"
#include "plan/walk_messages.h"
#include "records/aggregate.h"
#include "records/side_lists.h"
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

// Step codes of traverseCommonDir. Both of its reads use them.
enum CommonStep : int {
  kOpen = 2,  // also if it is unknown whether the directory leads to a change
  kReadChanged = 3,
  kLookAtTarget = 4,  // also if it is unknown whether the entry's inode still exists
  kWalkDeleted = 5,
  kAddItem = 6,  // also: whether the entry's inode must be made again is unknown
  kReadLeading = 7,
  kMoveAside = 8,
  kListDirectory = 9,
  kWalkCommon = 10,
  kListDirMove = 11,
  kWalkNew = 12,
  kListNewDirectory = 13,
  kCountNames = 14,  // of the entry's inode
  kSnapshotPathTooLong = 21,
  kListMissingLink = 22,
  kFetch = 41,  // of a moved object, or of a directory that is made in its temporary location
  kListCreation = 42,
  kListDeletedFile = 51,
  kJunctionPathTooLong = 52,
  kUnlinkNewJunction = 53,
  kPathTooLong = 71,
  kListLink = 72,
  kListDeletion = 73,
  kListChanges = 74,
  kListMove = 75,
  kListRegMove = 76,
  kSettleTruncations = 81,  // before a directory is moved aside
  kListMadeAside = 411,
  kUnlinkJunction = 711,
};

constexpr AsideCodes kAsideCodes{.settle = kSettleTruncations,
                                 .move = kMoveAside,
                                 .list = kListDirectory,
                                 .walk = kWalkCommon,
                                 .moveBack = kListDirMove};

constexpr int64_t kEntriesOfMessage = 1000;

long long number(uint64_t ino) {
  return static_cast<long long>(ino);
}

// The state of one common directory during its walk, shared by both reads.
struct CommonDir {
  std::string path;  // the name of the current entry is appended while that is handled
  uint64_t ino = 0;
  Inode active;  // the open active directory
  // Names of non-directories in this pass's range that only the active directory has.
  std::unordered_set<std::string> newNames;
  bool listed = false;  // listed for its own attributes, because an entry is made again
};

// A directory with many changes was listed as a whole, so its owner can have removed an entry since.
// Returns false for a directory that the walk itself has moved aside: something below it is missing.
bool removedSince(const std::string &path, uint64_t ino) {
  struct stat st;
  if (statPath(path, &st).err != ENOENT) return false;
  return !statPath(tempLocation(ino), &st) || st.st_ino != ino;
}

// The walk over the directories that the snapshot and the active fileset have in common. rc of a
// failure is an errno, -1 or that of the step.
class CommonWalk {
 public:
  explicit CommonWalk(MasterLists &lists) : lists_(lists) {}

  // Walks the directory `ino` at `path` (active path or temporary location) and everything below it
  // that leads to a change, for the current pass. Writes lists and moves renamed directories aside.
  // Failures are traced.
  Result traverseCommonDir(const std::string &path, uint64_t ino);

  // Walks every directory that waits in a temporary location. Call it after the walk from the root.
  Result walkMovedDirs();

 private:
  Result walkMovedDir(uint64_t ino);
  Result lookAtMovedDir(const std::string &waiting, uint64_t ino, bool *there);
  Result readBoth(CommonDir &dir);
  void tracePassedOver();

  // First read: the entries that only one of both directories has.
  Result readChangedEntries(CommonDir &dir);
  Result onlyInSnapshot(CommonDir &dir, const kest_direntx64_t &entry, bool in_range);
  Result snapshotEntry(CommonDir &dir, const kest_direntx64_t &entry, bool in_range);
  Result deletedDirectory(CommonDir &dir, uint64_t ino);
  Result chooseTarget(uint64_t ino, std::string *target);
  Result onlyInActive(CommonDir &dir, const kest_direntx64_t &entry, bool in_range);

  // Second read: the entries of the active directory that differ or lead to a change. The flags of
  // their items decide what happens.
  Result readLeadingEntries(CommonDir &dir);
  Result leadingEntry(CommonDir &dir, const kest_direntx64_t &entry);
  Result remakeFile(CommonDir &dir, uint64_t ino);
  Result directory(CommonDir &dir, uint64_t ino);
  Result newDirectory(CommonDir &dir, uint64_t ino);
  Result movedDirectory(CommonDir &dir, uint64_t ino, bool changed);
  Result hardLinked(CommonDir &dir, const kest_direntx64_t &entry, DiffItem &item);
  Result singleName(CommonDir &dir, uint64_t ino, const DiffItem &item);

  MasterLists &lists_;
  const CommonWalker walkCommon_ = [this](const std::string &path, uint64_t ino) {
    return traverseCommonDir(path, ino);
  };
  long long directories_ = 0, entries_ = 0;  // visited so far
};

void CommonWalk::tracePassedOver() {
  traceLog(
      "traverseCommonDir: pass %d, %lld directories, %lld entries lead to changes, others passed "
      "over\n",
      settings.pass, directories_, entries_);
  directories_ = entries_ = 0;
}

Result CommonWalk::traverseCommonDir(const std::string &path, uint64_t ino) {
  const int leads = kest_leads_to_change(handles.iscanP, ino);
  if (leads == 0) return {};
  Result result;
  if (leads > 0) {
    traceLog("traverseCommonDir: Path %s, ino %lld\n", path.c_str(), number(ino));
    CommonDir dir{.path = path, .ino = ino, .active = nullptr, .newNames = {}};
    result = readBoth(dir);
  } else {
    result = failedErrno(kOpen);
  }
  if (!result) {
    traceLog("traverseCommonDir: path %s, ino %lld, rc %d, code %d, error %d\n", path.c_str(),
             number(ino), result.rc, result.code, result.err);
    return failedAt(path, result);
  }
  if (ino == handles.rootIno) tracePassedOver();
  return {};
}

Result CommonWalk::readBoth(CommonDir &dir) {
  if (Result r = openInode(handles.activeFsP, dir.ino, &dir.active); !r) return r.at(kOpen);
  ++directories_;
  // This read sets the flags by which the second read decides.
  if (Result r = readChangedEntries(dir); !r) return r;
  return readLeadingEntries(dir);
}

Result CommonWalk::walkMovedDirs() {
  // The walk can append directories to this list, so fix the count before it begins and index the
  // vector.
  const size_t count = lists_.dirMoves().size();
  for (size_t i = 0; i < count; ++i)
    if (Result r = walkMovedDir(lists_.dirMoves()[i]); !r) return r;
  tracePassedOver();
  return {};
}

Result CommonWalk::walkMovedDir(uint64_t ino) {
  const std::string waiting = tempLocation(ino);
  bool there = false;
  Result r = lookAtMovedDir(waiting, ino, &there);
  if (!r) {
    traceLog("traverseCommonDir: path %s, ino %lld, rc %d, code %d, error %d\n", waiting.c_str(),
             number(ino), r.rc, r.code, r.err);
    return failedAt(waiting, r);
  }
  return there ? traverseCommonDir(waiting, ino) : Result{};
}

// *there: the directory waits at its temporary location. Lists it if it has changed itself.
Result CommonWalk::lookAtMovedDir(const std::string &waiting, uint64_t ino, bool *there) {
  FileKind kind = kKindSame;
  if (Result r = checkFile(ino, &kind); !r) return r.at(kLookAtTarget);
  if (kind != kKindSame) return {};
  struct stat st;
  if (Result r = statPath(waiting, &st); !r) return r.err == ENOENT ? Result{} : r.at(kLookAtTarget);
  *there = st.st_ino == ino;
  if (!*there) return {};
  const DiffItem *item = inPassRange(ino) ? findItem(ino) : nullptr;
  if (item == nullptr || (item->type & kDiffChanged) == 0) return {};
  return lists_.ListRecord(waiting, ino, kOpRestoreDiffFile).at(kListDirectory);
}

// ---- first read

Result CommonWalk::readChangedEntries(CommonDir &dir) {
  int64_t count = 0;
  for (;;) {
    if (stopSignal() != 0) return failedErrno(kReadChanged, EINTR);
    const kest_direntx64_t *entry = nullptr;
    if (kest_ireaddirx64(dir.active.get(), handles.iscanP, &entry) != 0)
      return failedErrno(kReadChanged);
    // The names are known, but a non-directory belongs to the pass of its inode number.
    if (!entry) return {};
    if (++count % kEntriesOfMessage == 0)
      userMessage(Message::kEntriesProcessed, formatTimeStamp(), count);
    if (isDotEntry(entry->d_name) || isQuotaFile(dir.path, entry->d_name)) continue;
    const bool in_range = inPassRange(entry->d_ino);
    if (!isDirEntry(*entry) && !in_range) continue;
    traceLog("traverseCommonDir:[1] d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
             number(entry->d_ino), entry->d_type, entry->d_flags);
    const Result result = isSnapEntry(*entry) ? onlyInSnapshot(dir, *entry, in_range)
                                              : onlyInActive(dir, *entry, in_range);
    if (!result) return failedAt(dir.path + "/" + entry->d_name, result);
  }
}

Result CommonWalk::onlyInSnapshot(CommonDir &dir, const kest_direntx64_t &entry, bool in_range) {
  PathName name(dir.path, entry.d_name);
  if (!name.ok()) return failed(kSnapshotPathTooLong, ENAMETOOLONG);
  if (isJunction(dir.path, entry)) {
    traceLog("traverseCommonDir: skep junction %s only in snapshot.\n", dir.path.c_str());
    return {};
  }
  // A missing hard link is not copied: phase 8 links the name to the inode.
  bool linked = false;
  if (!isDirEntry(entry))
    if (Result r = isHardLinked(entry.d_ino, &linked); !r) return r.at(kCountNames);
  if (!linked) return snapshotEntry(dir, entry, in_range);
  bool also_deleted = false;
  if (Result r = listMissingLink(dir.path, entry.d_ino, &also_deleted); !r)
    return r.at(kListMissingLink);
  if (!also_deleted) return {};
  return lists_.ListRecord(dir.path, entry.d_ino, kOpRestoreDelFile).at(kListDeletedFile);
}

Result CommonWalk::snapshotEntry(CommonDir &dir, const kest_direntx64_t &entry, bool in_range) {
  const uint64_t ino = entry.d_ino;
  FileKind kind = kKindSame;
  if (in_range) {
    const DiffItem *item = findItem(ino);
    if (item && item->type & (kDiffDeleted | kDiffNew)) kind = kKindDeleted;
  } else if (Result r = checkScanned(ino, &kind); !r) {
    traceLog("traverseCommonDir: checkFile failed: %lld\n", number(ino));
    return failed(kLookAtTarget, r.err);
  }
  if (kind == kKindSame) return fetchMovedObject(lists_, dir.path, entry).at(kFetch);
  if (isDirEntry(entry)) return deletedDirectory(dir, ino);
  return lists_.ListRecord(dir.path, ino, kOpRestoreDelFile).at(kListDeletedFile);
}

Result CommonWalk::deletedDirectory(CommonDir &dir, uint64_t ino) {
  ++lists_.dirDepth;
  ++aggregates.main.iAgg;
  std::string target = dir.path;
  if (Result r = chooseTarget(ino, &target); !r) return r;
  if (Result r = lists_.ListRecord(target, ino, kOpCrDir); !r) return r.at(kListCreation);
  if (Result r = traverseDelDir(lists_, ino, target, ino); !r) {
    traceLog("traverseCommonDir: traverseDelDir failed, path %s, ino %lld\n", target.c_str(),
             number(ino));
    return r.at(kWalkDeleted);
  }
  if (--lists_.dirDepth == 0) aggregates.main.uCount = 0;
  return {};
}

// Chooses the path at which the directory is made again. While more passes follow, that is its
// temporary location: nothing that a pass makes may appear in the tree before the last pass, whose
// walks would take it for a new object.
Result CommonWalk::chooseTarget(uint64_t ino, std::string *target) {
  const std::string own_path = *target;
  struct stat st;
  if (settings.pass > 1) {
    // Pass 1 has made the directory, so it is either in its temporary location or at its place.
    const std::string waiting = tempLocation(ino);
    const Result there = statPath(waiting, &st);
    if (there || there.err != ENOENT) *target = waiting;
    return {};
  }
  const Result taken = statPath(own_path, &st);
  if (!taken && taken.err != ENOENT) return taken.at(kLookAtTarget);
  if (!taken && scan.finalPass) return {};
  *target = tempLocation(ino);
  if (Result r = lists_.ListDirMoveBack(ino); !r) return r.at(kListMadeAside);
  return fetchFile(own_path, ino).at(kFetch);
}

Result CommonWalk::onlyInActive(CommonDir &dir, const kest_direntx64_t &entry, bool in_range) {
  const uint64_t ino = entry.d_ino;
  if (isJunction(dir.path, entry)) {
    PathName name(dir.path, entry.d_name);
    if (!name.ok()) return failed(kJunctionPathTooLong, ENAMETOOLONG);
    return settleNested(dir.path, ino).at(kUnlinkNewJunction);
  }
  if (in_range) {
    DiffItem *item = findItem(ino);
    if (!item) {
      if (Result r = addItem(ino, kDiffMoved); !r) return r.at(kAddItem);
      // A new object under a new name is only deleted; an object of the snapshot must move home.
    } else if (!(item->type & kDiffNew)) {
      item->type |= kDiffMoved;
    }
    if (!isDirEntry(entry)) dir.newNames.insert(entry.d_name);
    return {};
  }
  FileKind kind = kKindSame;
  if (Result r = checkScanned(ino, &kind); !r) {
    traceLog("traverseCommonDir: checkFile failed, %lld\n", number(ino));
    return failed(kAddItem, r.err);
  }
  if (kind == kKindDeleted) return {};  // removed since the directory was read
  return addItem(ino, kind == kKindSame ? kDiffMoved : kDiffNew).at(kAddItem);
}

// ---- second read

Result CommonWalk::readLeadingEntries(CommonDir &dir) {
  for (;;) {
    if (stopSignal() != 0) return failedErrno(kReadLeading, EINTR);
    const kest_direntx64_t *entry = nullptr;
    if (kest_ireaddirc64(dir.active.get(), handles.iscanP, &entry) != 0)
      return failedErrno(kReadLeading);
    if (!entry) return {};
    if (isQuotaFile(dir.path, entry->d_name)) continue;
    ++entries_;
    traceLog("traverseCommonDir:[2] d_name %s, d_ino %lld, d_type 0x%X, d_flag 0x%X\n", entry->d_name,
             number(entry->d_ino), entry->d_type, entry->d_flags);
    const Result handled = leadingEntry(dir, *entry);
    if (handled) continue;
    const std::string path = dir.path + "/" + entry->d_name;
    if (handled.err == ENOENT && removedSince(path, entry->d_ino)) {
      traceLog("traverseCommonDir: path %s is gone\n", path.c_str());
      forgetFailure();
      continue;
    }
    return failedAt(path, handled);
  }
}

Result CommonWalk::leadingEntry(CommonDir &dir, const kest_direntx64_t &entry) {
  const uint64_t ino = entry.d_ino;
  PathName name(dir.path, entry.d_name);
  if (!name.ok()) return failed(kPathTooLong, ENAMETOOLONG);
  // The work directory lies in the fileset but is no part of it.
  if (dir.path == settings.shareDir) {
    if (settings.Verb) traceLog("Skip shareDir. Path %s\n", dir.path.c_str());
    return {};
  }
  if (isJunction(dir.path, entry)) return settleNested(dir.path, ino).at(kUnlinkJunction);
  if (isDirEntry(entry)) return directory(dir, ino);
  // Without an item the object is unchanged or belongs to another pass, however many links it has.
  DiffItem *item = inPassRange(ino) ? findItem(ino) : nullptr;
  if (!item) return {};
  // The snapshot has this name, but its inode counts as another file. That may be one which must be
  // made again.
  if (item->type & kDiffNew && dir.newNames.count(entry.d_name) == 0) {
    bool remake = false;
    if (Result r = needsRemaking(ino, &remake); !r) return failed(kAddItem, r.err);
    if (remake) return remakeFile(dir, ino);
  }
  bool linked = false;
  if (Result r = isHardLinked(ino, &linked); !r) return r.at(kCountNames);
  return linked ? hardLinked(dir, entry, *item) : singleName(dir, ino, *item);
}

// Handles the snapshot's own name of a file that has to be made again.
Result CommonWalk::remakeFile(CommonDir &dir, uint64_t ino) {
  if (Result r = lists_.ListRecord(dir.path, ino, kOpDeleteFile); !r) return r.at(kListDeletion);
  bool listed = true, linked = false;
  if (Result r = isHardLinked(ino, &linked); !r) return r.at(kCountNames);
  if (linked) {
    if (Result r = listMissingLink(dir.path, ino, &listed); !r) return r.at(kListLink);
  }
  if (listed) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpRestoreDelFile); !r)
      return r.at(kListDeletedFile);
  }
  // Removing and making the entry changes the times of a directory that may itself be unchanged, so
  // list it once.
  if (dir.listed || dir.ino == handles.rootIno) return {};
  dir.listed = true;
  std::string own_path = dir.path;
  cutPath(own_path);
  return lists_.ListRecord(own_path, dir.ino, kOpRestoreDiffFile).at(kListDirectory);
}

Result CommonWalk::directory(CommonDir &dir, uint64_t ino) {
  // Look up every directory, even outside the range: the first read adds items for those.
  const DiffItem *item = findItem(ino);
  const uint8_t flags = item ? item->type : 0;
  if (flags & kDiffNew) return newDirectory(dir, ino);
  if (flags & kDiffMoved) return movedDirectory(dir, ino, flags & kDiffChanged);
  if (flags & kDiffChanged) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpRestoreDiffFile); !r) {
      traceLog("traverseCommonDir: ListRecord failed, path %s, ino %lld\n", dir.path.c_str(),
               number(ino));
      return r.at(kListDirectory);
    }
  }
  if (Result r = traverseCommonDir(dir.path, ino); !r) {
    traceLog("traverseCommonDir: traverseCommonDir failed, path %s, ino %lld\n", dir.path.c_str(),
             number(ino));
    return r.at(kWalkCommon);
  }
  return {};
}

Result CommonWalk::newDirectory(CommonDir &dir, uint64_t ino) {
  // The lists of a new top directory are numbered by the depth below it, whatever the depth of this
  // walk.
  const int32_t depth = lists_.dirDepth;
  if (depth == 0) ++aggregates.main.iAgg;
  lists_.dirDepth = 1;
  const Result walked = traverseNewDir(lists_, walkCommon_, ino, dir.path, ino);
  lists_.dirDepth = depth;
  if (!walked) return walked.at(kWalkNew);
  if (Result r = lists_.ListRecord(dir.path, ino, kOpDelDir); !r) return r.at(kListNewDirectory);
  if (depth == 0) aggregates.main.uCount = 0;
  return {};
}

Result CommonWalk::movedDirectory(CommonDir &dir, uint64_t ino, bool changed) {
  std::string new_path;
  const Result result =
      setAsideDirectory(lists_, walkCommon_, kAsideCodes, dir.path, ino, changed, &new_path);
  if (result) return result;
  switch (result.code) {
    case kSettleTruncations:
      break;  // traced with the path of the file
    case kMoveAside:
      traceLog("traverseCommonDir: moveFile failed, path %s, ino %lld, phase %d, newPath %s\n",
               dir.path.c_str(), number(ino), settings.phase, new_path.c_str());
      break;
    case kListDirectory:
      traceLog("traverseCommonDir: ListRecord failed, path %s, ino %lld\n", dir.path.c_str(),
               number(ino));
      break;
    case kWalkCommon:
      traceLog("traverseCommonDir: traverseCommonDir failed, path %s, ino %lld\n", new_path.c_str(),
               number(ino));
      break;
    default:
      traceLog("traverseCommonDir: ListDirMoveBack failed, ino %lld\n", number(ino));
      break;
  }
  return result;
}

// Each name of a hard-linked inode is judged alone. A name that the snapshot does not have is deleted,
// and link.ino corrects the inode's names later. A name that the snapshot has stays, and the inode's
// changes are listed once, under the first such name.
Result CommonWalk::hardLinked(CommonDir &dir, const kest_direntx64_t &entry, DiffItem &item) {
  const uint64_t ino = entry.d_ino;
  if (item.type & kDiffNew || dir.newNames.count(entry.d_name) != 0) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpDeleteFile); !r) return r.at(kListDeletion);
    return item.type & kDiffNew ? Result{} : listLink(dir.path, ino).at(kListLink);
  }
  if (item.type & kDiffChanged) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpRestoreDiffFile); !r) return r.at(kListChanges);
    // The other names of the inode must not list its changes again.
    item.type &= static_cast<uint8_t>(~kDiffChanged);
  }
  return {};
}

Result CommonWalk::singleName(CommonDir &dir, uint64_t ino, const DiffItem &item) {
  if (item.type & kDiffNew) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpDeleteFile); !r) return r.at(kListDeletion);
  }
  if (item.type & kDiffChanged) {
    if (Result r = lists_.ListRecord(dir.path, ino, kOpRestoreDiffFile); !r) return r.at(kListChanges);
  }
  if (!(item.type & kDiffMoved)) return {};
  if (Result r = lists_.ListRecord(dir.path, ino, kOpMoveFile); !r) return r.at(kListMove);
  return lists_.ListRegMoveBack(ino).at(kListRegMove);
}

Result walkTrees(MasterLists &lists) {
  CommonWalk walk(lists);
  if (Result r = walk.traverseCommonDir(handles.rootPath, handles.rootIno); !r) return r;
  return settings.pass > 1 ? walk.walkMovedDirs() : Result{};
}

}  // namespace

Result walkNames(MasterLists &lists) {
  struct Ender {
    ~Ender() { truncations.reset(); }
  } ender;
  truncations = std::make_unique<Truncations>();
  const Result walked = walkTrees(lists);
  return walked ? settleTruncations() : walked;
}
