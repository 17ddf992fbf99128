#include "restore/phases.h"

#include <string.h>
#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "messages/messages.h"
#include "object/paths.h"
#include "policy/command_lines.h"
#include "policy/policy_run.h"
#include "records/side_lists.h"
#include "restore/clone_survivors.h"
#include "restore/late_lists.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kSettleRounds = 100;
constexpr char kClonesLabel[] = "clone";  // stands for all clone lists in trace lines

using StartMessage = CheckedMessage<std::string>;

struct PhaseList {
  Phase phase;
  std::string name;
  CheckedMessage<> failure;
};

Result runPhase(const PhaseList &list) {
  EngineRun run;
  Result result = phaseRun(list.phase, list.name, &run);
  if (result) {
    traceLog("Main: phase %d pass %d pcCmd: %s, opListPath %s\n", settings.phase, settings.pass,
             run.command.c_str(), run.list.c_str());
    result = executePolicy(run);
  }
  if (!result) userMessage(list.failure);
  return result;
}

Result failPhase(const PhaseList &list, int err) {
  traceLog("Main: list %s, err %d\n", list.name.c_str(), err);
  userMessage(Message::kListFailed, list.name, strerror(err));
  userMessage(list.failure);
  return failedErrno(0, err);
}

// Runs the phase if its list exists. A list that cannot be examined is a failure and does not count as
// missing.
Result runIfListed(const PhaseList &list, std::optional<StartMessage> start,
                   bool remove_after = false) {
  struct stat st;
  const std::string path = workPath(list.name);
  if (path.empty()) return failPhase(list, ENAMETOOLONG);
  if (Result r = statPath(path, &st); !r) return r.err == ENOENT ? Result{} : failPhase(list, r.err);
  if (start) userMessage(*start, formatTimeStamp());
  if (Result r = runPhase(list); !r) return r;
  if (!remove_after) return {};
  const Result removed = unlinkWorkFile(path);
  return removed ? removed : failPhase(list, removed.err);
}

// Runs the clone lists, one engine run for each depth.
Result runCloneLists(Phase phase, CloneLists kind, CheckedMessage<std::string, int> start,
                     CheckedMessage<> failure) {
  std::vector<int> depths;
  if (Result r = listedCloneDepths(kind, &depths); !r)
    return failPhase({phase, kClonesLabel, failure}, r.err);
  const bool deletions = kind == CloneLists::kDelete;
  for (const int depth : depths) {
    userMessage(start, formatTimeStamp(), depth);
    const PhaseList list{phase, deletions ? cloneDeleteListName(depth) : cloneListName(depth), failure};
    if (Result r = runPhase(list); !r) return r;
    if (!deletions) continue;
    if (Result r = unlinkWorkFile(cloneDeleteList(depth)); !r) return failPhase(list, r.err);
  }
  return {};
}

}  // namespace

Result runPassPhases(MasterLists &lists) {
  userMessage(Message::kRestoreFiles, formatTimeStamp());
  // The records of opList name present paths, so they run before opList.move moves files aside.
  if (Result r = runPhase({kPhaseMain, kOpList, Message::kRestoreFilesFailed}); !r) return r;
  if (Result r =
          runIfListed({kPhaseMain, kOpListMove, Message::kRestoreFilesFailed}, std::nullopt, true);
      !r)
    return r;
  if (Result r = runCloneLists(kPhaseCloneDelete, CloneLists::kDelete, Message::kDeleteClones,
                               Message::kDeleteClonesFailed);
      !r)
    return r;
  if (!lists.haveRegMoves()) return {};
  userMessage(Message::kMoveFiles, formatTimeStamp());
  if (Result r = lists.closeRegMoves(); !r) return r;
  return runPhase({kPhaseMoveBack, kRegMoveList, Message::kMoveFilesFailed});
}

Result runFinalPhases() {
  if (Result r = gatherNodeLists(kRegPendingMvList); !r)
    return failPhase({kPhasePending, kRegPendingMvList, Message::kMovePendingFailed}, r.err);
  if (Result r = runIfListed({kPhasePending, kRegPendingMvList, Message::kMovePendingFailed},
                             StartMessage(Message::kMovePending));
      !r)
    return r;
  if (Result r = runIfListed({kPhaseCreate, kOpListCopy, Message::kRestoreDeletedFailed},
                             StartMessage(Message::kRestoreDeleted));
      !r)
    return r;
  userMessage(Message::kRestoreDeletedDone);
  return {};
}

Result runLatePhases() {
  if (Result r = runCloneLists(kPhaseClones, CloneLists::kRestore, Message::kRestoreClones,
                               Message::kRestoreClonesFailed);
      !r)
    return r;
  if (Result r = followNewParents(); !r)
    return failPhase({kPhaseClones, kClonesLabel, Message::kRestoreClonesFailed}, r.err);
  return runIfListed({kPhaseLinks, kLinkIno, Message::kRestoreLinksFailed},
                     StartMessage(Message::kRestoreLinks));
}

Result settleDirectories() {
  const PhaseList list{kPhaseDirs, kDirLast, Message::kMovePendingFailed};
  const std::string fresh = workPath(kDirNew), last = workPath(kDirLast);
  for (int round = 0;; ++round) {
    struct stat st;
    if (Result r = gatherNodeLists(kDirNew); !r) return failPhase(list, r.err);
    if (Result r = statPath(fresh, &st); !r) return r.err == ENOENT ? Result{} : failPhase(list, r.err);
    if (round == kSettleRounds) break;
    if (Result r = takeDirRecords(fresh, last); !r) return failPhase(list, r.err);
    if (Result r = runIfListed(list, std::nullopt, true); !r) return r;
  }
  userMessage(Message::kDirsUnsettled, kSettleRounds);
  return failPhase(list, ELOOP);
}
