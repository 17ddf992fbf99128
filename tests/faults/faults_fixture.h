// faults_fixture.h: one history with every kind of work in it, restored with a fault, then without.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "faults/running_restore.h"
#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

namespace faults {

using scenario::RunResult;
using testsupport::Fault;
using testsupport::FaultAction;
using testsupport::kAnyWorker;
using testsupport::kMaster;

inline constexpr int kMain = 3, kMoveBack = 4, kPending = 5, kDirs = 6, kLinks = 8, kCreate = 51;

class Faults : public scenario::RestoreFixture {
 protected:
  // A fresh fileset with the history below. May be called several times in a test.
  // `further`: more that the snapshot holds.
  void prepare(void (*further)(testsupport::TreeBuilder &) = nullptr);
  // Restores with a fault; the fault has to strike, or the test fails. What the run prints goes to the
  // test's messages until the next call.
  // `items`: the program of several passes, with as many differing inodes in each.
  RunResult restoreWith(const Fault &fault, unsigned items = 0);
  // Begins a restore to the snapshot of prepare().
  std::unique_ptr<Running> start(int ignored = 0) {
    return std::make_unique<Running>(fs().mountPoint(), fileset(), snapshotName(), ignored);
  }
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
