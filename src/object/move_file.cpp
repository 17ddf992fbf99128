#include "object/move_file.h"

#include <cerrno>

#include "object/attr_restore.h"
#include "object/clear_flags.h"
#include "object/object_stat.h"
#include "object/path_files.h"
#include "object/step.h"
#include "object/temp_place.h"
#include "record/side_list.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/same_file.h"

namespace {

constexpr int kMostAttempts = 10;

bool exists(const std::string &path) {
  struct stat st;
  return statPath(path, &st) == 0 || errno != ENOENT;
}

Step moveAway(const std::string &path, uint64_t ino, const std::string &to, bool *vanished) {
  const long long number = static_cast<long long>(ino);
  const auto move = [&] {
    return kest_rename_noreplace(handles.activeFsP, linkFree(path).c_str(), to.c_str(), ino);
  };
  for (int attempt = 0;; ++attempt) {
    const int err = retryClearing(path, "", move);
    if (err == 0) return {};
    // Either the bucket is missing, or the source has gone since it was looked at.
    if (err == ENOENT && !exists(path)) {
      *vanished = true;
      return {};
    }
    if (err != ENOENT || attempt == kMostAttempts) {
      traceLog("moveFile: move %s to %s failed, ino %lld err %d.\n", path.c_str(), to.c_str(), number,
               err);
      return failedStep(3, err);
    }
    const std::string bucket = bucketDir(ino);
    if (const int made = makeWorkDirectory(bucket)) {
      traceLog("moveFile: create %s failed, ino %lld err %d.\n", bucket.c_str(), number, made);
      return failedStep(2, made);
    }
  }
}

// The temporary location becomes a link, so that paths through it still lead to the directory.
Step leaveLink(const std::string &path, const std::string &destination) {
  if (kest_symlink(handles.activeFsP, destination.c_str(), path.c_str()) == 0) return {};
  const int err = errno;
  std::string target;
  if (err == EEXIST && readLinkTarget(path, &target) == 0 && target == destination) return {};
  return failedStep(10, err);
}

Step arrive(const std::string &path, const std::string &destination, int32_t phase) {
  if (int rc = restoreAttr(destination, phase); rc != 0) return failedStep(81, errno, rc);
  return phase == kPhaseDirs ? leaveLink(path, destination) : Step{};
}

// A worker lost after its rename left the attributes undone.
Step arriveAgain(const std::string &path, uint64_t ino, int32_t phase) {
  std::string destination;
  struct stat st;
  if (!readDestination(ino, &destination)) return errno == ENOENT ? Step{} : failedStep(4, errno);
  if (statPath(destination, &st) != 0)
    return errno == ENOENT || errno == ENOTDIR ? Step{} : failedStep(7, errno);
  if (st.st_ino != ino) return {};
  const int kind = checkFile(ino);
  if (kind < 0) return failedStep(7, errno);
  return kind == kKindSame ? arrive(path, destination, phase) : Step{};
}

Step listPending(uint64_t ino) {
  const std::string list = workPath(kRegPendingMvList), location = tempLocation(ino);
  const long long number = static_cast<long long>(ino);
  bool opened = false;
  const int err = appendSideRecord(list, kRegPendingMvList, ino, location, kOpMoveFile,
                                   aggregates.regPend, &opened);
  if (err == 0) return {};
  if (!opened)
    traceLog("ListRegpendingMvBack: open %s failed, ino %lld, err %d\n", list.c_str(), number, err);
  traceLog("ListRegpendingMvBack: ino %lld, opCode %d, rc %d, code %d, err %d\n", number, kOpMoveFile,
           err, opened ? 2 : 1, err);
  return failedStep(6, err, err);
}

// What stands at a temporary location may be a directory made anew, with another number; nobody else
// can put anything there.
Step moveBack(const std::string &path, uint64_t ino, int32_t phase) {
  std::string destination;
  if (!readDestination(ino, &destination)) {
    const int err = errno;
    const std::string file = destinationFile(ino);
    const long long number = static_cast<long long>(ino);
    if (err == ENODATA) {
      traceLog("moveFile: failed to get move path for inode %lld from %s, err %d\n", number,
               file.c_str(), err);
      return failedStep(5, err);
    }
    traceLog("moveFile: open dest path file failed, inode %lld %s err %d\n", number, file.c_str(), err);
    return failedStep(4, err);
  }
  const int err = retryClearing(path, destination, [&] {
    return kest_rename_noreplace(handles.activeFsP, path.c_str(), linkFree(destination).c_str(), 0);
  });
  if (err == 0) return arrive(path, destination, phase);
  if (err == EEXIST && phase == kPhaseMoveBack) return listPending(ino);
  // A repeated record can be in the list twice, and another worker be the first.
  if (err == ENOENT && !exists(path)) return arriveAgain(path, ino, phase);
  traceLog("moveFile: move %s to %s failed, phase %d pass %d err %d.\n", path.c_str(),
           destination.c_str(), phase, settings.pass, err);
  return failedStep(7, err);
}

}  // namespace

int moveFile(const std::string &path, uint64_t ino, int32_t phase, std::string *newPath,
             bool deleteClone) {
  const bool away = phase <= kPhaseMain;
  Step step;
  if (newPath != nullptr) newPath->clear();
  struct stat st;
  bool missing = false;
  if (statPath(path, &st) != 0) {
    missing = errno == ENOENT;
    if (!missing) step = failedStep(1, errno);
  } else if (phase == kPhaseDirs && S_ISLNK(st.st_mode)) {
    missing = true;  // the link that stands for a directory which has gone home
  }
  if (missing) {
    traceLog("moveFile: source file %s isn't exist, nothing needs to do.\n", path.c_str());
    if (!away) step = arriveAgain(path, ino, phase);
  } else if (step && away) {
    if (phase == 2 && settings.pass > 1) return 0;
    const bool aside = newPath != nullptr && deleteClone;
    const std::string to = aside ? cloneDeleteLocation(ino) : tempLocation(ino);
    bool vanished = false;
    if (newPath != nullptr) *newPath = to;
    step = to.empty() ? failedStep(3, ENAMETOOLONG) : moveAway(path, ino, to, &vanished);
    if (vanished && newPath != nullptr) newPath->clear();
  } else if (step) {
    step = moveBack(path, ino, phase);
  }
  if (step) return 0;
  traceLog(
      "moveFile: path %s, ino %lld, phase %d, pass %d, newPath %s, shareDir %s,rc %d, code %d, error "
      "%d\n",
      path.c_str(), static_cast<long long>(ino), phase, settings.pass,
      newPath != nullptr ? newPath->c_str() : "NULL", settings.shareDir.c_str(), step.rc, step.code,
      step.err);
  errno = step.err;
  return step.rc;
}
