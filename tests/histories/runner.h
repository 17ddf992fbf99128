// runner.h: one history from the empty fileset to the verdict.
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
  bool killBefore = false;   // kill one or two restores at random moments first
  bool loseWorkers = false;  // kill workers at random calls to the library, three times a run at most
  bool compare = false;      // ask fsetcompare before and after the restore, too
};

struct Outcome {
  History history;
  std::vector<std::string> problems;  // empty: restored
  std::string runText;                // of the last restore
};

class Runner {
 public:
  explicit Runner(const Settings &settings);
  Outcome generate(uint64_t seed);                        // a random history of the profile
  Outcome replay(const History &history, uint64_t seed);  // the seed chooses the rest
  unsigned workersLost() const { return workersLost_; }   // in all runs so far
  // The smallest history found that fails in one of the ways of `failed`, by leaving operations out.
  Outcome shrink(const Outcome &failed, uint64_t seed);

 private:
  using Builder = std::function<void(testsupport::TreeBuilder &)>;
  Outcome run(uint64_t seed, const Builder &initial, const Builder &changes, const Builder &later);
  std::vector<std::string> restoreAndJudge(uint64_t seed, const std::string &fileset, Outcome *outcome);
  std::vector<std::string> judgeAgain(const std::string &fileset,
                                      const testsupport::RunOptions &options,
                                      const testsupport::TreePrint &want, Outcome *outcome);
  bool failsAlike(const History &history, uint64_t seed, const std::vector<std::string> &problems,
                  Outcome *outcome);
  void freshFileSystem();

  Settings settings_;
  std::unique_ptr<testsupport::TestFileSystem> fs_;
  unsigned runs_ = 0, workersLost_ = 0;
};

}  // namespace histories
