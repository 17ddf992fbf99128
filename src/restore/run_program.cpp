#include "restore/run_program.h"

#include <signal.h>

#include <cerrno>

#include "messages/catalogue.h"
#include "plan/lists.h"
#include "restore/command_line.h"
#include "restore/fileset_services.h"
#include "restore/master_run.h"
#include "restore/node_check.h"
#include "restore/preparation.h"
#include "restore/start_checks.h"
#include "run/open_run.h"
#include "run/rights.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_file.h"
#include "scan/diff_table.h"
#include "scan/scan_pass.h"
#include "worker/work_unit.h"

namespace {

// Releases the handles and writes the last trace line of the process. Its errno is that of the last
// call that failed, even if that failure did not matter.
void endProcess(int rc, int err) {
  const int last = errno;
  releaseHandles();
  traceLog("main phase %d, rc %d, err %d, errno %d \n", settings.phase, rc, err, last);
  flushTraceLines();
}

int runMaster(int argc, char **argv, uint64_t item_limit) {
  catchStopSignals();
  MasterLists lists;
  const MasterSteps steps{
      .prepare = prepareMaster, .listSnapshots = listSnapshots, .maxIno = &scan.maxIno};
  Result result, tidied;
  const Opened opened = openRun(&steps, &result);
  if (opened != Opened::kRelease) {
    bool worthless = false;
    if (opened == Opened::kReady) result = restoreFileset(argc, argv, item_limit, lists, &worthless);
    result = endRun(result, worthless, &tidied);
  }
  if (haveDiffTable()) {
    freeDiffTable();
    traceLog("Main: addItem: %d  freed: %d rc %d\n", addCount, freeCount, result.rc);
  }
  result = firstFailure(result, lists.closeAll());
  unlockFileset();
  const int status = result && tidied ? 0 : 1;
  endProcess(status, tidied.rc);
  return status;
}

int runBatch() {
  Result result;
  int rc = 0;
  if (openRun(nullptr, &result) == Opened::kReady) {
    rc = runWorker();
  } else {
    rc = result.rc;
  }
  endProcess(rc, 0);
  // The system cuts an exit status to its lower byte, so a larger number could read as success.
  return rc >= 0 && rc < 256 ? rc : 1;
}

}  // namespace

int runProgram(int argc, char **argv, uint64_t item_limit) {
  initMessages();
  if (!prepareLimits()) return 1;
  switch (readCommandLine(argc, argv)) {
    case RunMode::kProbe:
      return 0;
    case RunMode::kNodeProbe:
      return answerNodeCheck(argv[3]);
    case RunMode::kUsage:
      return 1;
    case RunMode::kRun:
      break;
  }
  // Whoever closes the pipe of the messages must not kill a half-done restore. Commands inherit this.
  signal(SIGPIPE, SIG_IGN);
  // If the parent ignored SIGCHLD, this process could not get the exit statuses of its commands.
  signal(SIGCHLD, SIG_DFL);
  return settings.isMaster() ? runMaster(argc, argv, item_limit) : runBatch();
}
