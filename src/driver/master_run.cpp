#include "driver/master_run.h"

#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "cfgmgr/messages.h"
#include "compare/common_walk.h"
#include "driver/clean_up.h"
#include "driver/command_line.h"
#include "driver/fileset_services.h"
#include "driver/final_dir_move.h"
#include "driver/memory_budget.h"
#include "driver/phases.h"
#include "driver/preparation.h"
#include "driver/self_check.h"
#include "object/attr_restore.h"
#include "object/object_stat.h"
#include "oplist/dir_lists.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "run/fatal_error.h"
#include "run/progress.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "scan/diff_table.h"
#include "scan/scan_pass.h"

namespace {

int prepareTable(const char *argv0) {
  uint64_t mem = settings.mem;
  if (mem == 0) {
    if (const int rc = setMaxMemUsage(&mem)) {
      userMessage(Message::kNoMemoryLimit, programName(argv0));
      return rc;
    }
  }
  scan.diffItemLimit = diffItemLimit(mem);
  traceLog("main: mem: %lld  diffItemLimit:%lld\n", static_cast<long long>(mem),
           static_cast<long long>(scan.diffItemLimit));
  if (allocDiffTable()) return 0;
  userMessage(Message::kNoDiffTable);
  return -1;
}

int openList(std::unique_ptr<WorkFile> &stream, const char *name, WorkFile::Mode mode) {
  const std::string path = workPath(name);
  stream = WorkFile::open(path, mode);
  if (stream) return 0;
  const int error = errno ? errno : EIO;
  userMessage(Message::kFileError, path, messageText(Message::kOpenFailed));
  return error;
}

// The copy lists are worked off after the last pass and hold the records of all of them.
int openPassLists() {
  const WorkFile::Mode copies = settings.pass == 1 ? WorkFile::Mode::kTruncate : WorkFile::Mode::kKeep;
  if (const int rc = openList(opListP, kOpList, WorkFile::Mode::kTruncate)) return rc;
  if (const int rc = openList(cpListP, kOpListCopy, copies)) return rc;
  return openList(cpDeltaP, kOpListDelta, copies);
}

// Walks and moves give -1 and the reason in errno: a full file system must be known by it.
int withReason(int rc, int error) {
  return rc < 0 && error > 0 ? error : rc;
}

int walkNames() {
  int rc = traverseCommonDir(handles.rootPath, handles.rootIno);
  if (rc == 0 && settings.pass > 1) rc = walkMovedDirs();
  if (rc == 0) return 0;
  rc = withReason(rc, errno);
  userMessage(Message::kConstructFailed);
  dumpDiffTable();
  return rc;
}

int closePassLists() {
  int rc = 0;
  closeWorkFile(opListP, "opList", &rc);
  closeWorkFile(cpListP, "cpList", &rc);
  closeWorkFile(cpDeltaP, "cpDelta", &rc);
  closeDirLists(&rc);
  return rc;
}

int runPass() {
  ++settings.pass;
  if (const int rc = scanPass()) return rc;
  userMessage(Message::kConstruct, formatTimeStamp());
  if (const int rc = openPassLists()) return rc;
  if (const int rc = walkNames()) return rc;
  if (const int rc = closePassLists()) return rc;
  // The lists hold wrong records where something could not be read.
  if (const int marker = getFatalError()) return marker;
  reportOpCount(true);
  if (settings.Verb) dumpDiffTable();
  traceLog("main: clean diff table for pass %d\n", settings.pass);
  cleanDiffTable();
  traceLog("Main: addItem: %d  freed: %d\n", addCount, freeCount);
  const std::string checkpoints = workPath(kCheckpointDir);
  if (const int error = checkpoints.empty() ? ENAMETOOLONG : makeWorkDirectory(checkpoints)) {
    userMessage(Message::kNoCheckpointDir);
    return error;
  }
  return runPassPhases();
}

int moveDirectories() {
  if (!dirMvfP) return 0;
  userMessage(Message::kMoveDirs, formatTimeStamp());
  int rc = 0;
  closeWorkFile(dirMvfP, "dirMv", &rc);
  if (rc != 0) return rc;
  rc = doFinalDirMove();
  if (rc == 0) return 0;
  rc = withReason(rc, errno);
  userMessage(Message::kMoveDirsFailed);
  return rc;
}

bool isFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

// Its own times, last of all: every entry made or removed in it, the work directory's too, changes
// them.
int restoreRoot() {
  const int rc = restoreRootAttr();
  if (rc != 0) userMessage(Message::kRootAttrFailed, handles.rootPath, rc);
  return rc;
}

}  // namespace

int restoreFileset(int argc, char **argv, bool *cleanupFlag) {
  if (const int rc = prepareTable(argv[0])) return rc;
  if (settings.Verb)
    for (int i = 0; i < argc; ++i) traceLog("argv[%d]: %s\n", i, argv[i]);
  userMessage(Message::kPrepare, formatTimeStamp());
  if (const int rc = syncFileset()) {
    userMessage(Message::kSyncFailed);
    *cleanupFlag = true;
    return rc;
  }
  if (const int rc = buildEngineOptions()) {
    *cleanupFlag = true;
    return rc;
  }
  userMessage(Message::kScan, formatTimeStamp());
  if (const int rc = mountCheck()) {
    *cleanupFlag = true;
    return rc;
  }
  scan.scannedInoHigh = 0;
  scan.scannedCount = 0;
  while (!scan.finalPass)
    if (const int rc = runPass()) return rc;
  if (const int rc = runFinalPhases()) return rc;
  settings.dirsSettled = true;
  if (const int rc = moveDirectories()) return rc;
  if (const int rc = runLatePhases()) return rc;
  if (const int rc = settleDirectories()) return rc;
  userMessage(Message::kCompleted, formatTimeStamp());
  return 0;
}

int endRun(int rc, bool cleanupFlag, int *err) {
  const char *stopped = rc != 0 && stopSignal() != 0 ? strsignal(stopSignal()) : nullptr;
  ignoreStopSignals();
  // A worker that recorded an error is a failure, whatever its engine run said.
  const int marker = isFull(rc) ? rc : getFatalError();
  if (rc == 0) rc = marker;
  if (rc == 0 && settings.path2long) rc = ENAMETOOLONG;
  if (rc == 0) cleanupFlag = true;
  bool force = false;
  if (settings.path2long) {
    userMessage(Message::kPathTooLong);
    cleanupFlag = force = true;
  }
  if (stopped && settings.pass == 0) cleanupFlag = true;
  if (isFull(rc) || isFull(marker)) {
    userMessage(Message::kNoSpace);
    cleanupFlag = force = true;
  } else if (rc != 0 && !cleanupFlag && !stopped) {
    dumpErrorLog();
  }
  struct stat st;
  *err = settings.shareDir.empty() || statPath(settings.shareDir, &st) != 0 ? ENOENT : 0;
  if (*err == 0 && cleanupFlag && !settings.keepWorkDir) {
    userMessage(Message::kCleanUp, formatTimeStamp());
    *err = cleanup(settings.shareDir, force);
    if (*err != 0) {
      userMessage(Message::kCleanUpFailed);
    } else {
      closeTraceLog();
    }
  }
  if (stopped && settings.pass == 0) {
    userMessage(Message::kStoppedBefore, stopped, settings.filesetP);
  } else if (stopped) {
    userMessage(Message::kStopped, stopped, settings.filesetP, settings.shareDir);
  }
  if (settings.pass == 0) putBackRootFlags();
  if (rc == 0 && *err == 0) rc = restoreRoot();
  return rc;
}
