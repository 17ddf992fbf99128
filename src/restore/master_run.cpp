#include "restore/master_run.h"

#include <string.h>
#include <sys/stat.h>

#include <string>

#include "messages/messages.h"
#include "object/attr_restore.h"
#include "object/paths.h"
#include "plan/nested.h"
#include "plan/walk.h"
#include "plan/walk_messages.h"
#include "policy/command_lines.h"
#include "records/aggregate.h"
#include "restore/clean_up.h"
#include "restore/fileset_services.h"
#include "restore/late_lists.h"
#include "restore/make_room.h"
#include "restore/memory_budget.h"
#include "restore/node_check.h"
#include "restore/phases.h"
#include "restore/preparation.h"
#include "restore/shared_scan.h"
#include "restore/start_checks.h"
#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"
#include "scan/scan_pass.h"

namespace {

Result prepareTable(const char *argv0, uint64_t item_limit) {
  uint64_t mem = settings.mem;
  if (mem == 0) {
    if (Result r = setMaxMemUsage(&mem); !r) {
      userMessage(Message::kNoMemoryLimit, basename(argv0));
      userMessage(Message::kFileError, "/proc/meminfo", strerror(r.err));
      return r;
    }
  }
  scan.diffItemLimit = item_limit != 0 ? item_limit : diffItemLimit(mem);
  traceLog("main: mem: %lld  diffItemLimit:%lld\n", static_cast<long long>(mem),
           static_cast<long long>(scan.diffItemLimit));
  const Result result = allocDiffTable();
  if (!result) userMessage(Message::kNoDiffTable);
  return result;
}

Result constructLists(MasterLists &lists) {
  userMessage(Message::kConstruct, formatTimeStamp());
  if (Result r = lists.openForPass(); !r) return r;
  if (Result r = walkNames(lists); !r) {
    // endRun reports a signal and a path that is too long.
    if (stopSignal() == 0 && !settings.path2long) tellWalkFailure(handles.rootPath, r);
    userMessage(Message::kConstructFailed);
    dumpDiffTable();
    return r;
  }
  if (Result r = lists.closePass(); !r) return r;
  // A recorded error fails the run, whatever the exit status of its engine was.
  return recordedError();
}

Result runPass(MasterLists &lists) {
  ++settings.pass;
  if (Result r = scanPass(); !r) {
    if (stopSignal() == 0) userMessage(Message::kComparisonFailed, settings.filesetP, strerror(r.err));
    return r;
  }
  if (Result r = constructLists(lists); !r) return r;
  reportOpCount(true);
  if (settings.Verb) dumpDiffTable();
  traceLog("main: clean diff table for pass %d\n", settings.pass);
  cleanDiffTable();
  traceLog("Main: addItem: %d  freed: %d\n", addCount, freeCount);
  const std::string checkpoints = workPath(kCheckpointDir);
  const Result made = checkpoints.empty() ? errnoResult(ENAMETOOLONG) : makeWorkDirectory(checkpoints);
  if (!made) {
    userMessage(Message::kNoCheckpointDir);
    userMessage(Message::kFileError, workPath(kCheckpointDir), strerror(made.err));
    return made;
  }
  return runPassPhases(lists);
}

Result moveDirectories(MasterLists &lists) {
  if (!lists.haveDirMoves()) return {};
  userMessage(Message::kMoveDirs, formatTimeStamp());
  if (Result r = lists.closeDirMoves(); !r) return r;
  if (Result r = doFinalDirMove(); !r) {
    userMessage(Message::kMoveDirsFailed);
    return r;
  }
  return {};
}

Result runPassesAndPhases(MasterLists &lists) {
  scan.scannedInoHigh = 0;
  scan.scannedCount = 0;
  while (!scan.finalPass)
    if (Result r = runPass(lists); !r) return r;
  if (Result r = runFinalPhases(); !r) return r;
  settings.dirsSettled = true;
  if (Result r = moveDirectories(lists); !r) return r;
  if (Result r = runLatePhases(); !r) return r;
  if (Result r = bringNestedHome(); !r) {
    userMessage(Message::kMoveDirsFailed);
    return r;
  }
  if (Result r = settleDirectories(); !r) return r;
  userMessage(Message::kCompleted, formatTimeStamp());
  return {};
}

// Cuts out the middle of a long path for a message.
std::string shortened(const std::string &path) {
  constexpr size_t kBegin = 300, kEnd = 150;  // bytes that stay
  if (path.size() <= kBegin + kEnd) return path;
  return path.substr(0, kBegin) + "..." + path.substr(path.size() - kEnd);
}

// Removes the work directory if that is allowed. It does not exist if the run ended before making it.
Result tidyUp(bool worthless, bool force) {
  struct stat st;
  if (settings.shareDir.empty() || !statPath(settings.shareDir, &st)) return errnoResult(ENOENT);
  if (!worthless || settings.keepWorkDir) return {};
  userMessage(Message::kCleanUp, formatTimeStamp());
  const Result result = cleanup(settings.shareDir, force);
  if (result) {
    closeTraceLog();
  } else {
    userMessage(Message::kCleanUpFailed);
  }
  return result;
}

// This must be the very last step: every name made or removed in the root directory, even the work
// directory's, changes the root's times.
Result restoreRoot() {
  const Result result = restoreRootAttr();
  if (result) return {};
  userMessage(Message::kRootAttrFailed, handles.rootPath, result.rc);
  userMessage(Message::kFileError, handles.rootPath, strerror(result.err));
  return result;
}

// A write of the master itself may fail only now.
Result settleAll() {
  const Result result = called(kest_settle(handles.activeFsP));
  if (result) return {};
  userMessage(Message::kFileError, handles.rootPath, strerror(result.err));
  if (isFull(result.err)) userMessage(Message::kNoSpace);
  return result;
}

}  // namespace

Result restoreFileset(int argc, char **argv, uint64_t item_limit, MasterLists &lists, bool *worthless) {
  if (Result r = prepareTable(argv[0], item_limit); !r) return r;
  if (settings.Verb)
    for (int i = 0; i < argc; ++i) traceLog("argv[%d]: %s\n", i, argv[i]);
  userMessage(Message::kPrepare, formatTimeStamp());
  // A failure up to this point leaves nothing of value in the work directory.
  *worthless = true;
  // The comparison reads committed trees only, so commit first.
  if (Result r = syncFileset(); !r) {
    userMessage(Message::kSyncFailed);
    return r;
  }
  if (Result r = checkCommandLines(); !r) return r;
  size_t nodes = 1;
  if (Result r = checkNodes(&nodes); !r) return r;
  userMessage(Message::kScan, formatTimeStamp());
  if (Result r = shareScan(nodes); !r) return r;
  if (Result r = mountCheck(handles.iscanP); !r) return r;
  if (Result r = obstacleCheck(handles.iscanP, true); !r) return r;
  if (Result r = makeRoomForLists(); !r) return r;
  *worthless = false;
  return runPassesAndPhases(lists);
}

Result endRun(Result result, bool worthless, Result *tidied) {
  const bool before_passes = settings.pass == 0;
  const char *stopped = !result && stopSignal() != 0 ? strsignal(stopSignal()) : nullptr;
  ignoreStopSignals();
  // A recorded error fails the run even if the engine run reported success.
  const Result recorded = result.full() ? result : recordedError();
  if (result) result = recorded;
  if (result && settings.path2long) result = errnoResult(ENAMETOOLONG);
  if (result || (stopped && before_passes)) worthless = true;
  bool force = false;
  if (settings.path2long) {
    userMessage(Message::kPathTooLong);
    const std::string path = formerPath(settings.longPath);
    userMessage(Message::kPathTooLongWhere, static_cast<int64_t>(path.size()), shortened(path));
    worthless = force = true;
  }
  if (result.full() || recorded.full()) {
    userMessage(Message::kNoSpace);
    worthless = force = true;
  } else if (!result && !worthless && !stopped) {
    dumpErrorLog();
  }
  *tidied = tidyUp(worthless, force);
  if (stopped && before_passes) {
    userMessage(Message::kStoppedBefore, stopped, settings.filesetP);
  } else if (stopped) {
    userMessage(Message::kStopped, stopped, settings.filesetP, settings.shareDir);
  }
  if (before_passes) putBackRootFlags();
  return result && *tidied ? firstFailure(restoreRoot(), settleAll()) : result;
}
