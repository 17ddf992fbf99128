// faults_fixture.h: one history with every kind of work in it, restored with a fault, then without.
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

// A stage of a run, and a text of its trace log with which it begins.
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
  // A fresh fileset with a history: that of this file, or another. May be called several times in a
  // test. `further`: more that the snapshot holds.
  void prepare(Work further = nullptr);
  void prepareHistory(Work build, Work further, Work change);
  // Restores with a fault; the fault has to strike, or the test fails. What the run prints goes to the
  // test's messages until the next call.
  // `items`: the program of several passes, with as many differing inodes in each.
  RunResult restoreWith(const Fault &fault, unsigned items = 0);
  // Begins a restore to the snapshot of prepare(). Its workers take two records each, so that there
  // are many.
  std::unique_ptr<Running> start();
  // Waits until the stage has begun. False when the run was faster.
  bool reach(Running &run, const Stage &stage);
  std::vector<std::string> workDirs() const;  // paths
  // prepare() and start(), again where the run was over before it was seen in that stage.
  std::unique_ptr<Running> startUntil(const Stage &stage);
  // exit status 0, tree and snapshot equal, nothing left, every survivor kept.
  void expectEqual(const RunResult &result);
  // The same command again, without a fault, ends well.
  void expectRepairedByNextRun();
  // A message beyond the lines that tell the time, or the log of the run.
  static bool hasMessage(const RunResult &result);
  // How often the run told that it starts the engine again.
  static int retriesTold(const RunResult &result);
  bool equalsSnapshot();
  bool isAsBefore();  // as prepare() left it
  const std::string &what() const { return what_; }

  // How often the history's restore makes each call, by call and phase (measured once).
  const std::map<std::pair<std::string, int>, uint32_t> &calls();

 private:
  testsupport::TreePrint want_, before_;
  std::string what_;
  bool used_ = false;
};

}  // namespace faults
