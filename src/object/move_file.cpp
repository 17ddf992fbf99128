#include "object/move_file.h"

#include <cerrno>

#include "object/attr_restore.h"
#include "object/name_calls.h"
#include "object/paths.h"
#include "object/places.h"
#include "records/side_lists.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/same_file.h"

namespace {

constexpr int kMostAttempts = 10;

// Step codes of the trace line.
enum MoveStep : int {
  kLookAtSource = 1,
  kMakeBucket = 2,
  kMoveAside = 3,
  kReadDestination = 4,
  kEmptyDestination = 5,
  kListPending = 6,
  kMoveBack = 7,  // also if the object at the destination cannot be examined
  kLeaveLink = 10,
  kRestoreAttributes = 81,
};

bool isGone(const std::string &path) {
  struct stat st;
  return statPath(path, &st).err == ENOENT;
}

// Moves the object to `to`. *vanished: the source has disappeared meanwhile, which is no failure.
Result moveAside(const std::string &path, uint64_t ino, const std::string &to, bool *vanished) {
  const long long number = static_cast<long long>(ino);
  for (int attempt = 0;; ++attempt) {
    // The bucket usually exists, so make it only after a failure.
    const Result moved = renameAside(path, to, ino);
    if (moved) return {};
    // ENOENT means that either the bucket or the source is missing.
    *vanished = moved.err == ENOENT && isGone(path);
    if (*vanished) return {};
    if (moved.err != ENOENT || attempt == kMostAttempts) {
      traceLog("moveFile: move %s to %s failed, ino %lld err %d.\n", path.c_str(), to.c_str(), number,
               moved.err);
      return failed(kMoveAside, moved.err);
    }
    const std::string bucket = bucketDir(ino);
    if (Result r = makeWorkDirectory(bucket); !r) {
      traceLog("moveFile: create %s failed, ino %lld err %d.\n", bucket.c_str(), number, r.err);
      return failed(kMakeBucket, r.err);
    }
  }
}

// Turns the temporary location into a link, so that paths through it still lead to the directory.
Result leaveLink(const std::string &path, const std::string &destination) {
  const Result left = leaveOwnLink(destination, path);
  std::string target;
  if (left || (left.err == EEXIST && readLinkTarget(path, &target) && target == destination)) return {};
  return failed(kLeaveLink, left.err);
}

Result arrive(const std::string &path, const std::string &destination, int32_t phase) {
  if (Result r = restoreAttr(destination, phase); !r) return r.at(kRestoreAttributes);
  // The temporary location of a directory becomes a link only in phase 6, its final move.
  return phase == kPhaseDirs ? leaveLink(path, destination) : Result{};
}

// Handles a repeated record whose first worker died between the rename and the attributes: the source
// is gone, and the destination may still lack its attributes.
Result arriveAgain(const std::string &path, uint64_t ino, int32_t phase) {
  std::string destination;
  if (Result r = readDestination(ino, &destination); !r)
    return r.err == ENOENT ? Result{} : failed(kReadDestination, r.err);
  struct stat st;
  if (Result r = statPath(destination, &st); !r)
    return r.err == ENOENT || r.err == ENOTDIR ? Result{} : failed(kMoveBack, r.err);
  if (st.st_ino != ino) return {};
  FileKind kind = kKindOther;
  if (Result r = checkFile(ino, &kind); !r) return failed(kMoveBack, r.err);
  // If the number belongs to another file now, there is nothing to repair.
  return kind == kKindSame ? arrive(path, destination, phase) : Result{};
}

Result destinationOf(uint64_t ino, std::string *destination) {
  const Result r = readDestination(ino, destination);
  if (r) return {};
  const std::string file = destinationFile(ino);
  const long long number = static_cast<long long>(ino);
  if (r.err == ENODATA) {
    traceLog("moveFile: failed to get move path for inode %lld from %s, err %d\n", number, file.c_str(),
             r.err);
    return failed(kEmptyDestination, r.err);
  }
  traceLog("moveFile: open dest path file failed, inode %lld %s err %d\n", number, file.c_str(), r.err);
  return failed(kReadDestination, r.err);
}

// `ino` is not checked here: the object can be a directory that was made again under another number,
// and only processes of this run can put objects into temporary locations.
Result moveBack(const std::string &path, uint64_t ino, int32_t phase) {
  std::string destination;
  if (Result r = destinationOf(ino, &destination); !r) return r;
  const Result moved = renameBack(path, destination);
  if (moved) return arrive(path, destination, phase);
  // The object at the destination may itself move away in this phase, so phase 5 tries again.
  if (moved.err == EEXIST && phase == kPhaseMoveBack) return listPendingMove(ino).at(kListPending);
  // After a retry a record can be in the list twice, and another worker may have performed it first.
  if (moved.err == ENOENT && isGone(path)) return arriveAgain(path, ino, phase);
  traceLog("moveFile: move %s to %s failed, phase %d pass %d err %d.\n", path.c_str(),
           destination.c_str(), phase, settings.pass, moved.err);
  return failed(kMoveBack, moved.err);
}

// *gone: no object at `path` needs moving.
Result lookAtSource(const std::string &path, int32_t phase, bool *gone) {
  struct stat st;
  const Result r = statPath(path, &st);
  if (!r && r.err != ENOENT) return failed(kLookAtSource, r.err);
  // In phase 6 a link at the source is what a directory left when it went home.
  *gone = !r || (phase == kPhaseDirs && S_ISLNK(st.st_mode));
  if (*gone) {
    traceLog("moveFile: source file %s isn't exist, nothing needs to do.\n", path.c_str());
  }
  return {};
}

// `newPath` may be null.
Result moveByPhase(const std::string &path, uint64_t ino, int32_t phase, std::string *newPath,
                   bool deleteClone) {
  const bool away = phase <= kPhaseMain;
  bool gone = false;
  if (Result r = lookAtSource(path, phase, &gone); !r) return r;
  if (!away) return gone ? arriveAgain(path, ino, phase) : moveBack(path, ino, phase);
  if (gone) return {};
  const bool delete_location = newPath != nullptr && deleteClone;
  const std::string to = delete_location ? cloneDeleteLocation(ino) : tempLocation(ino);
  if (newPath != nullptr) *newPath = to;
  if (to.empty()) return failed(kMoveAside, ENAMETOOLONG);
  bool vanished = false;
  const Result r = moveAside(path, ino, to, &vanished);
  if (vanished && newPath != nullptr) newPath->clear();
  return r;
}

}  // namespace

Result moveFile(const std::string &path, uint64_t ino, int32_t phase, std::string *newPath,
                bool deleteClone) {
  if (newPath != nullptr) newPath->clear();
  const Result r = moveByPhase(path, ino, phase, newPath, deleteClone);
  if (!r) {
    traceLog(
        "moveFile: path %s, ino %lld, phase %d, pass %d, newPath %s, shareDir %s,rc %d, code %d, error "
        "%d\n",
        path.c_str(), static_cast<long long>(ino), phase, settings.pass,
        newPath != nullptr ? newPath->c_str() : "NULL", settings.shareDir.c_str(), r.rc, r.code, r.err);
  }
  return r;
}
