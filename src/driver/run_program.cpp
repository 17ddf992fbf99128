#include "driver/run_program.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "cfgmgr/catalogue.h"
#include "driver/command_line.h"
#include "driver/master_run.h"
#include "driver/preparation.h"
#include "oplist/dir_lists.h"
#include "oplist/main_lists.h"
#include "oplist/move_back_lists.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_buffer.h"
#include "run/trace_log.h"
#include "run/work_file.h"
#include "scan/diff_table.h"
#include "worker/work_unit.h"

namespace {

void releaseLists(int *rc) {
  closeWorkFile(opListP, "opList", rc);
  closeWorkFile(cpListP, "cpList", rc);
  closeWorkFile(cpDeltaP, "cpDelta", rc);
  closeDirLists(rc);
  closeWorkFile(regMvfP, "regMv", rc);
  closeWorkFile(dirMvfP, "dirMv", rc);
}

// Workers report an error number, which must neither read as success nor be cut to it by the system.
int workerStatus(int rc) {
  return rc == 0 || (rc > 0 && rc < 256) ? rc : 1;
}

int runWorker() {
  const int pid = static_cast<int>(getpid());
  traceLog("[THREAD %d] start, phase %d, callerPid %d\n", pid, settings.phase, settings.callerPid);
  flushTraceLines();
  const int rc = doWorkUnit(settings.listFile, settings.callerPid);
  traceLog("[THREAD %d] finished, phase %d, rc %d\n\n", pid, settings.phase, rc);
  return rc;
}

}  // namespace

int runProgram(int argc, char **argv) {
  initMessages();
  switch (readCommandLine(argc, argv)) {
    case RunMode::kProbe:
      return 0;
    case RunMode::kUsage:
      return 1;
    case RunMode::kRun:
      break;
  }
  // Who stops reading the messages must not stop the restore half-way; commands inherit this.
  signal(SIGPIPE, SIG_IGN);
  // A parent that ignores it would keep the exit statuses of commands from us.
  signal(SIGCHLD, SIG_DFL);

  const bool master = settings.phase == kPhaseMaster;
  if (master) catchStopSignals();
  int rc = 0, err = 0;
  const Prepared prepared = prepareRun(&rc);
  if (prepared == Prepared::kReady && !master) rc = runWorker();
  if (prepared != Prepared::kRelease && master) {
    bool cleanupFlag = false;
    if (prepared == Prepared::kReady) rc = restoreFileset(argc, argv, &cleanupFlag);
    rc = endRun(rc, cleanupFlag, &err);
  }

  if (haveDiffTable()) {
    freeDiffTable();
    traceLog("Main: addItem: %d  freed: %d rc %d\n", addCount, freeCount, rc);
  }
  releaseLists(&rc);
  const int saved = errno;
  releaseHandles();
  errno = saved;
  const int status = master ? (rc != 0 || err != 0 ? 1 : 0) : workerStatus(rc);
  traceLog("main phase %d, rc %d, err %d, errno %d \n", settings.phase, master ? status : rc, err,
           errno);
  flushTraceLines();
  return status;
}
