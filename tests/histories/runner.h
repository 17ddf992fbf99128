// runner.h: runs one history from the empty fileset to the verdict.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "histories/operation.h"
#include "support/restore_run.h"
#include "support/test_file_system.h"
#include "support/tree_fingerprint.h"

namespace histories {

struct Settings {
  std::string profile = "all";
  std::string program = testsupport::kRestoreProgram;
  std::vector<int> passes;   // one of these at random as DIFF_ITEM_LIMIT; empty: unset
  bool killBefore = false;   // first kill one or two restores at random moments
  bool loseWorkers = false;  // kill workers at random calls, at most three times a run
  bool compare = false;      // also run fsetcompare before and after the restore
};

struct Outcome {
  History history;
  std::vector<std::string> problems;  // empty: restored
  std::string runText;                // output of the last restore
};

class Runner {
 public:
  explicit Runner(const Settings &settings);
  Outcome generate(uint64_t seed);                         // a random history of the profile
  Outcome replay(const History &history, uint64_t seed);   // the seed decides everything else
  unsigned workersLost() const { return workersLost_; }    // in all runs so far
  unsigned mountedAgain() const { return mountedAgain_; }  // because a tree looked wrong
  // Leaves out operations to find a small history that fails in one of the ways of `failed`.
  Outcome shrink(const Outcome &failed, uint64_t seed);

 private:
  using Builder = std::function<void(testsupport::TreeBuilder &)>;
  Outcome run(uint64_t seed, const Builder &initial, const Builder &changes, const Builder &later);
  std::vector<std::string> restoreAndJudge(uint64_t seed, const std::string &fileset, Outcome *outcome);
  std::vector<std::string> judgeAgain(const std::string &fileset,
                                      const testsupport::RunOptions &options,
                                      const testsupport::TreePrint &want, Outcome *outcome);
  testsupport::TreePrint printRestored(const std::string &fileset, const testsupport::TreePrint &want);
  bool failsAlike(const History &history, uint64_t seed, const std::vector<std::string> &problems,
                  Outcome *outcome);
  void freshFileSystem();

  Settings settings_;
  std::unique_ptr<testsupport::TestFileSystem> fs_;
  unsigned runs_ = 0, workersLost_ = 0, mountedAgain_ = 0;
};

}  // namespace histories
