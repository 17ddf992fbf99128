#include "restore/start_checks.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "formats/program_names.h"
#include "messages/messages.h"
#include "object/paths.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/shell_command.h"

namespace {

// Shells redirect descriptors 0 to 2, which this process may have been started without.
constexpr int kLeastDescriptor = 3;

constexpr const char *kCommands[] = {"ktapplypolicy", "ktfsctl",         "ktlsfileset",
                                     "ktlssnapshot",  "ktunlinkfileset", "kxfindinode"};

// `lock` receives a descriptor that holds the lock; the caller closes it.
Result takeLock(int *lock) {
  const UniqueFd held(kest_lock(handles.activeFsP));
  if (!held) return failedErrno(0);
  *lock = fcntl(held.get(), F_DUPFD_CLOEXEC, kLeastDescriptor);  // the copy shares the lock
  return *lock >= 0 ? Result{} : failedErrno(0);
}

// Checks that a file which the run needs is the same before and after the restore.
Result checkSurvives(const std::string &path) {
  const int survives = kest_file_survives(handles.activeFsP, handles.oldFsP, path.c_str());
  if (survives > 0) return {};
  if (survives < 0) {
    const Result result = failedErrno(0);
    userMessage(Message::kCommandMissing, path, strerror(result.err));
    return result;
  }
  userMessage(Message::kWouldRemoveItself, path, settings.filesetP, settings.snapOldP);
  return errnoResult(EBUSY);
}

Result checkExecutable(const std::string &path) {
  struct stat st;
  if (Result r = called(stat(path.c_str(), &st)); !r) return r;
  if (!S_ISREG(st.st_mode)) return errnoResult(EACCES);
  return called(access(path.c_str(), X_OK));
}

Result checkCommandFile(const std::string &path) {
  if (Result r = checkExecutable(path); !r) {
    userMessage(Message::kCommandMissing, path, strerror(r.err));
    return r;
  }
  return checkSurvives(path);
}

bool locked = false;

}  // namespace

void unlockFileset() {
  // A file that stays is harmless: the next run locks it again.
  if (locked) (void)kest_remove_lock(handles.activeFsP);
}

Result lockFileset() {
  int lock = -1;
  const Result taken = takeLock(&lock);
  if (taken) {
    locked = true;
    inheritInCommands(lock);  // keep it open while this process lives
  } else if (taken.err == EWOULDBLOCK) {
    userMessage(Message::kAlreadyRunning, settings.filesetP);
    if (kest_spans_nodes(handles.activeFsP) == 1) userMessage(Message::kLockOfLostNode);
  } else {
    userMessage(Message::kNoRunLock, settings.filesetP, strerror(taken.err));
  }
  return taken;
}

Result selfCheck() {
  char other[256] = "";
  if (kest_other_node(handles.activeFsP, settings.nodeSpec.c_str(), other, sizeof other) != 0) {
    userMessage(Message::kOtherNode, other);
    return errnoResult(EINVAL);
  }
  if (kest_is_writable(handles.activeFsP) == 0) {
    userMessage(Message::kReadOnlyFileset, settings.filesetP);
    return errnoResult(EROFS);
  }
  for (const char *name : kCommands)
    if (Result r = checkCommandFile(std::string(kProgramDir) + name); !r) return r;
  if (Result r = checkSurvives(settings.exe); !r) return r;
  // The library's own file must survive as well.
  Dl_info library;
  if (dladdr(reinterpret_cast<void *>(&kest_iopen64), &library) != 0 && library.dli_fname) {
    const std::unique_ptr<char, decltype(&free)> path(realpath(library.dli_fname, nullptr), free);
    if (Result r = checkSurvives(path ? path.get() : library.dli_fname); !r) return r;
  }
  if (kest_is_writable(handles.oldFsP) == 1) userMessage(Message::kWritableSnapshot, settings.snapOldP);
  return {};
}

namespace {

struct ObstacleReport {
  bool tell_programs;
  bool refused = false;  // the restore must not begin
};

void reportObstacle(void *arg, unsigned kind, const char *path) {
  auto *const report = static_cast<ObstacleReport *>(arg);
  if (kind == KEST_OB_RUNS) {
    if (report->tell_programs) userMessage(Message::kProgramRuns, path);
    return;
  }
  report->refused = true;
  if (kind == KEST_OB_SWAP) {
    userMessage(Message::kSwapSpace, path);
  } else {
    userMessage(Message::kNoAcls, path, handles.rootPath);
  }
}

}  // namespace

Result obstacleCheck(kest_iscan_t *scan, bool tell) {
  ObstacleReport report{tell};
  if (kest_find_obstacles(handles.activeFsP, handles.oldFsP, scan, reportObstacle, &report) != 0) {
    const Result result = failedErrno(0);
    userMessage(Message::kObstaclesUnknown, settings.filesetP, strerror(result.err));
    return result;
  }
  return report.refused ? errnoResult(EBUSY) : Result{};
}

Result mountCheck(kest_iscan_t *scan) {
  char point[kPathMax];
  const int found = kest_mount_in_the_way(handles.activeFsP, handles.oldFsP, scan, point, sizeof point);
  if (found == 0) return {};
  if (found < 0) {
    const Result result = failedErrno(0);
    userMessage(Message::kMountsUnknown, settings.filesetP, strerror(result.err));
    return result;
  }
  userMessage(Message::kMountInTheWay, point);
  return errnoResult(EBUSY);
}
