#include "driver/phases.h"

#include <sys/stat.h>

#include <cerrno>
#include <optional>

#include "cfgmgr/messages.h"
#include "driver/clone_depths.h"
#include "driver/clone_survivors.h"
#include "driver/dir_records.h"
#include "object/object_stat.h"
#include "oplist/move_back_lists.h"
#include "oplist/policy_run.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr size_t kEngineOptionsMax = 320;  // bytes, terminators included
constexpr size_t kWorkerOptionsMax = 2048;
constexpr size_t kCommandMax = 2048;
constexpr int kSettleRounds = 100;
constexpr char kDirLast[] = "dir.last";

std::string pcOpt, commExeOpt;

using StartMessage = CheckedMessage<std::string>;

struct PhaseRun {
  Phase phase;
  std::string list;
  CheckedMessage<> failure;
};

bool fits(const std::string &text, size_t size) {
  if (text.size() < size) return true;
  userMessage(Message::kCommandTooLong, static_cast<int>(size), text);
  return false;
}

std::string engineCommand(const PhaseRun &run) {
  const std::string dir = shellWord(settings.shareDir);
  return "/usr/qtx/kest/bin/ktapplypolicy " + shellWord(settings.deviceP) + " -P " + dir +
         "/policy -g " + dir + (run.phase == kPhaseMain ? " -r " : "  -r ") + dir + "/" + run.list +
         " " + pcOpt + " " + (settings.Debug ? "" : ">/dev/null");
}

std::string workerOptions(Phase phase) {
  return commExeOpt + " -p " + std::to_string(phase) + " -s " + std::to_string(settings.pass) +
         (phase == kPhaseDirs ? " -D" : "");
}

int runPhase(const PhaseRun &run) {
  const std::string command = engineCommand(run);
  const std::string options = workerOptions(run.phase);
  const std::string list = workPath(run.list);
  int rc = E2BIG;
  if (fits(command, kCommandMax) && fits(options, kWorkerOptionsMax) && !list.empty()) {
    traceLog("Main: phase %d pass %d pcCmd: %s, opListPath %s\n", settings.phase, settings.pass,
             command.c_str(), list.c_str());
    rc = executePolicy(command, options, "", list);
  }
  if (rc != 0) userMessage(run.failure);
  return rc;
}

int failPhase(const PhaseRun &run, int error) {
  traceLog("Main: list %s, err %d\n", run.list.c_str(), error);
  userMessage(run.failure);
  return error ? error : EIO;
}

// Runs the phase when its list exists. A list that cannot be looked at is no missing list.
int runIfListed(const PhaseRun &run, std::optional<StartMessage> start, bool remove_after = false,
                bool *ran = nullptr) {
  struct stat st;
  const std::string path = workPath(run.list);
  if (path.empty()) return failPhase(run, ENAMETOOLONG);
  if (statPath(path, &st) != 0) return errno == ENOENT ? 0 : failPhase(run, errno);
  if (start) userMessage(*start, formatTimeStamp());
  if (const int rc = runPhase(run)) return rc;
  if (remove_after && unlinkWorkFile(path) != 0) return failPhase(run, errno);
  if (ran) *ran = true;
  return 0;
}

// Clone lists, one run a depth.
int runCloneLists(Phase phase, CloneLists kind, CheckedMessage<std::string, int> start,
                  CheckedMessage<> failure) {
  std::vector<int> depths;
  if (const int error = listedCloneDepths(kind, &depths))
    return failPhase({phase, "clone", failure}, error);
  for (const int depth : depths) {
    const std::string path = kind == CloneLists::kDelete ? cloneDeleteList(depth) : cloneList(depth);
    userMessage(start, formatTimeStamp(), depth);
    const PhaseRun run{phase, path.substr(path.rfind('/') + 1), failure};
    if (const int rc = runPhase(run)) return rc;
    if (kind == CloneLists::kDelete && unlinkWorkFile(path) != 0) return failPhase(run, errno);
  }
  return 0;
}

}  // namespace

int buildEngineOptions() {
  pcOpt = "-m " + std::to_string(settings.threads) + " -B " + std::to_string(settings.maxFiles) +
          " -N " + shellWord(settings.nodeSpec);
  commExeOpt = "-d " + shellWord(settings.deviceP) + " -j " + shellWord(settings.filesetP) + " -o " +
               shellWord(settings.snapOldP) + " -t " + shellWord(settings.shareDir) + " -B " +
               std::to_string(settings.maxFiles) + " " + (settings.noXAttr ? "-x" : "") + " " +
               (settings.Debug ? "" : "-q") + " " + (settings.Verb ? "-v" : "") + " " +
               (settings.encryptEA ? "-E" : "");
  traceLog("Main: pcOpt %s\n", pcOpt.c_str());
  traceLog("Main: commExeOpt  %s\n", commExeOpt.c_str());
  // The longest list name, and room for the pass number and the process id that are added later.
  const PhaseRun longest{kPhaseCreate, kOpListDelta, Message::kRestoreDeletedFailed};
  const std::string room(32, ' ');
  if (!fits(pcOpt, kEngineOptionsMax) || !fits(engineCommand(longest), kCommandMax) ||
      !fits(workerOptions(kPhaseDirs) + room, kWorkerOptionsMax))
    return E2BIG;
  return 0;
}

int runPassPhases() {
  userMessage(Message::kRestoreFiles, formatTimeStamp());
  if (const int rc = runPhase({kPhaseMain, kOpList, Message::kRestoreFilesFailed})) return rc;
  if (const int rc =
          runIfListed({kPhaseMain, kOpListMove, Message::kRestoreFilesFailed}, std::nullopt, true))
    return rc;
  if (const int rc = runCloneLists(kPhaseCloneDelete, CloneLists::kDelete, Message::kDeleteClones,
                                   Message::kDeleteClonesFailed))
    return rc;
  if (!regMvfP) return 0;
  userMessage(Message::kMoveFiles, formatTimeStamp());
  int rc = 0;
  closeWorkFile(regMvfP, "regMv", &rc);
  if (rc != 0) return rc;
  return runPhase({kPhaseMoveBack, kRegMoveList, Message::kMoveFilesFailed});
}

int runFinalPhases() {
  if (const int rc = runIfListed({kPhasePending, kRegPendingMvList, Message::kMovePendingFailed},
                                 StartMessage(Message::kMovePending)))
    return rc;
  if (const int rc = runIfListed({kPhaseCreate, kOpListCopy, Message::kRestoreDeletedFailed},
                                 StartMessage(Message::kRestoreDeleted)))
    return rc;
  bool copied = false;
  if (const int rc = runIfListed({kPhaseData, kOpListDelta, Message::kRestoreDeletedFailed},
                                 std::nullopt, false, &copied))
    return rc;
  if (copied) userMessage(Message::kRestoreDeletedDone);
  return 0;
}

int runLatePhases() {
  if (const int rc = runCloneLists(kPhaseClones, CloneLists::kRestore, Message::kRestoreClones,
                                   Message::kRestoreClonesFailed))
    return rc;
  if (followNewParents() != 0)
    return failPhase({kPhaseClones, "clone", Message::kRestoreClonesFailed}, errno);
  return runIfListed({kPhaseLinks, kLinkIno, Message::kRestoreLinksFailed},
                     StartMessage(Message::kRestoreLinks));
}

int settleDirectories() {
  const PhaseRun run{kPhaseDirs, kDirLast, Message::kMovePendingFailed};
  const std::string fresh = workPath(kDirNew), last = workPath(kDirLast);
  for (int round = 0;; ++round) {
    struct stat st;
    if (statPath(fresh, &st) != 0) return errno == ENOENT ? 0 : failPhase(run, errno);
    if (round == kSettleRounds) break;
    if (const int error = takeDirRecords(fresh, last)) return failPhase(run, error);
    if (const int rc = runIfListed(run, std::nullopt, true)) return rc;
  }
  userMessage(Message::kDirsUnsettled, kSettleRounds);
  return failPhase(run, ELOOP);
}
