// faults_fixture.h: one history with every kind of work, restored first with a fault and then without.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

namespace faults {

using scenario::RunResult;
using testsupport::Fault;
using testsupport::FaultAction;
using testsupport::kAnyWorker;
using testsupport::kMaster;
using testsupport::Process;
using testsupport::readAll;
using testsupport::Running;
using testsupport::waitUntil;

inline constexpr int kMain = 3, kMoveBack = 4, kPending = 5, kDirs = 6, kLinks = 8, kCreate = 51;

// A stage of a run, and the text in its trace log that marks its beginning.
struct Stage {
  const char *name, *begins;
  bool masterAlone;
};

inline constexpr Stage kStages[] = {{"walks", "traverseCommonDir", true},
                                    {"main", "start, phase 3", false},
                                    {"move back", "start, phase 4", false},
                                    {"create", "start, phase 51", false},
                                    {"directory move", "doFinalDirMove: moving", true},
                                    {"links", "start, phase 8", false},
                                    {"directories", "start, phase 6", false},
                                    {"clean-up", "Clean up.", true}};

class Faults : public scenario::RestoreFixture {
 protected:
  using Work = void (*)(testsupport::TreeBuilder &);
  // Makes a fresh fileset with the history of this file, or with another one. A test can call it
  // several times. `further` adds to the snapshot.
  void prepare(Work further = nullptr);
  void prepareHistory(Work build, Work further, Work change);
  // Restores with a fault, which must strike or the test fails. The output of the run goes to the
  // test's messages until the next call. `items`: uses the program with several passes, each with that
  // many differing inodes.
  RunResult restoreWith(const Fault &fault, unsigned items = 0);
  // Starts a restore to the snapshot of prepare(). Its workers take two records each, so that there are
  // many workers.
  std::unique_ptr<Running> start();
  // Waits until the stage has begun. Returns false if the run was faster.
  bool reach(Running &run, const Stage &stage);
  std::vector<std::string> workDirs() const;  // paths
  // Calls prepare() and start() until a run is seen in that stage.
  std::unique_ptr<Running> startUntil(const Stage &stage);
  // Expects exit status 0, equal trees, no left-overs and every survivor kept.
  void expectEqual(const RunResult &result);
  // Runs the same command again without a fault and expects success.
  void expectRepairedByNextRun();
  // Returns true if the run printed a message other than progress lines, or its log.
  static bool hasMessage(const RunResult &result);
  // Returns how often the run reported that it restarts the engine.
  static int retriesTold(const RunResult &result);
  bool equalsSnapshot();
  bool isAsBefore();  // as prepare() left it
  const std::string &what() const { return what_; }

  // Returns how often a restore of the history makes each call, by call and phase (measured once).
  const std::map<std::pair<std::string, int>, uint32_t> &calls();

 private:
  testsupport::TreePrint want_, before_;
  std::string what_;
  bool used_ = false;
};

}  // namespace faults
