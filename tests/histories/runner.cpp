#include "histories/runner.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

#include "histories/generator.h"
#include "histories/random.h"
#include "support/fault_plan.h"
#include "support/loop_btrfs.h"
#include "support/survival.h"
#include "support/tree_fingerprint.h"

namespace histories {

using testsupport::Fault;
using testsupport::FaultAction;
using testsupport::FaultPlan;
using testsupport::RunOptions;
using testsupport::RunResult;
using testsupport::TestFileSystem;
using testsupport::TreeBuilder;
using testsupport::TreePrint;

namespace {

constexpr unsigned kRunsPerFileSystem = 64;  // before deleted subvolumes fill it
constexpr char kSnapshot[] = "snap";
constexpr int kMostTries = 600;  // replays while shrinking

// Returns "mtime", "left over", "remade": lines of one kind count as the same failure.
std::string kindOf(const std::string &line) {
  const std::string kind = line.substr(0, std::min(line.find(" of "), line.find(": ")));
  return kind.substr(kind.starts_with("later, ") ? 7 : 0);
}

// A run starts its engine at most four times, so it survives three losses anywhere.
Fault lostWorkers(Random &random) {
  static const std::vector<const char *> calls{"*",
                                               "kest_unlink",
                                               "kest_rename_noreplace",
                                               "kest_icreate",
                                               "kest_iwritex",
                                               "kest_mkdir",
                                               "kest_rmdir",
                                               "kest_link",
                                               "kest_symlink",
                                               "kest_iset_times",
                                               "kest_ichmod",
                                               "kest_iputacl",
                                               "kest_iputattrsx",
                                               "kest_truncate",
                                               "kest_fcntl"};
  Fault fault;
  fault.call = random.pick(calls);
  fault.action = random.chance(50) ? FaultAction::kKillBefore : FaultAction::kKillAfter;
  fault.where = testsupport::kAnyWorker;
  fault.nth = random.between(1, fault.call[0] == '*' ? 120 : 6);
  fault.step = random.between(1, fault.call[0] == '*' ? 60 : 5);
  fault.times = static_cast<uint32_t>(random.between(1, 3));
  return fault;
}

// Runs fsetcompare by the difference scan and with --full. Returns a line if its exit status
// contradicts `differences`, those of the fingerprints, or if both ways report different lines.
std::vector<std::string> checkCompare(const std::string &device, const std::string &fileset,
                                      const std::string &snapshot,
                                      const std::vector<std::string> &differences) {
  RunOptions options;
  options.program = "/usr/qtx/kest/bin/fsetcompare";
  const RunResult fast = testsupport::runRestore(device, fileset, snapshot, {}, options);
  const RunResult full = testsupport::runRestore(device, fileset, snapshot, {"--full"}, options);
  const auto sorted = [](const std::string &text) {
    std::istringstream in(text);
    std::multiset<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
  };
  const int wanted = differences.empty() ? 0 : 1;
  const bool judges = fast.exitStatus == wanted && full.exitStatus == wanted;
  if (judges && sorted(fast.out) == sorted(full.out)) return {};
  return {std::string(judges ? "fsetcompare tells two things" : "fsetcompare judges otherwise") +
          ":\nfingerprints: " + testsupport::joined(differences, 10) + "fast: " + fast.describe() +
          "full: " + full.describe()};
}

}  // namespace

Runner::Runner(const Settings &settings) : settings_(settings) {
  freshFileSystem();
}

void Runner::freshFileSystem() {
  fs_.reset();
  fs_ = TestFileSystem::make("histories", testsupport::LoopBtrfs::kDefaultBytes);
}

Outcome Runner::generate(uint64_t seed) {
  Generator generator(settings_.profile, seed);
  History history;
  Outcome outcome = run(
      seed, [&](TreeBuilder &tree) { history.initial = generator.buildInitial(tree); },
      [&](TreeBuilder &tree) { history.changes = generator.change(tree); },
      [&](TreeBuilder &tree) { history.later = generator.change(tree); });
  outcome.history = std::move(history);
  return outcome;
}

Outcome Runner::replay(const History &history, uint64_t seed) {
  auto applyAll = [](const std::vector<Operation> &operations) {
    return [&operations](TreeBuilder &tree) {
      for (const Operation &operation : operations) apply(tree, operation);
    };
  };
  Outcome outcome =
      run(seed, applyAll(history.initial), applyAll(history.changes), applyAll(history.later));
  outcome.history = history;
  return outcome;
}

Outcome Runner::run(uint64_t seed, const Builder &initial, const Builder &changes,
                    const Builder &later) {
  if (runs_++ % kRunsPerFileSystem == kRunsPerFileSystem - 1) freshFileSystem();
  const std::string fileset = "h" + std::to_string(runs_);
  Outcome outcome;
  fs_->makeFileset(fileset);
  {
    TreeBuilder tree(fs_->path(fileset));
    initial(tree);
    fs_->takeSnapshot(fileset, kSnapshot);
    testsupport::awaitClockTick();
    changes(tree);
  }
  outcome.problems = restoreAndJudge(seed, fileset, &outcome);
  // Also changes objects that the first restore made again.
  if (outcome.problems.empty()) {
    {
      TreeBuilder tree(fs_->path(fileset));
      later(tree);
    }
    for (const std::string &line : restoreAndJudge(seed + 1, fileset, &outcome))
      outcome.problems.push_back("later, " + line);
  }
  fs_->removeSnapshot(fileset, kSnapshot);
  fs_->removeFileset(fileset);
  return outcome;
}

std::vector<std::string> Runner::restoreAndJudge(uint64_t seed, const std::string &fileset,
                                                 Outcome *outcome) {
  const std::string snapshot = fs_->snapshotName(fileset, kSnapshot);
  const std::string snapshot_path = fs_->snapshotPath(fileset, kSnapshot);
  Random random(seed ^ 0x5eed0fc401ce5ull);
  const bool many = seed % 2 != 0;
  const std::vector<std::string> workers{"-m", many ? "36" : "2"};
  RunOptions options;
  options.program = settings_.program;
  // The servers may wait up to a minute for a client that was killed.
  if (TestFileSystem::onCephFs()) options.timeoutSeconds = 250;
  if (many) options.environment.emplace_back("KT_MAX_WORKERS", "36");
  if (!settings_.passes.empty())
    options.environment.emplace_back("DIFF_ITEM_LIMIT", std::to_string(random.pick(settings_.passes)));

  if (settings_.compare) fs_->mountAgain();  // fsetcompare reads through a client of its own
  TreePrint want = testsupport::fingerprint(snapshot_path);
  TreePrint before = testsupport::fingerprint(fs_->path(fileset));
  std::vector<std::string> problems;
  const auto add = [&](const char *what, const std::vector<std::string> &lines) {
    for (const std::string &line : lines) problems.push_back(what + line);
  };
  const auto crossCheck = [&](const char *when, const TreePrint &now) {
    if (settings_.compare)
      add(when, checkCompare(fs_->mountPoint(), fileset, snapshot, compare(want, now)));
  };
  crossCheck("before the restore, ", before);
  if (settings_.killBefore) {
    RunOptions killed = options;
    for (uint64_t n = random.between(1, 2); n > 0; --n) {
      killed.killAfterSeconds = static_cast<double>(random.below(300)) / 1000;
      testsupport::runRestore(fs_->mountPoint(), fileset, snapshot, workers, killed);
    }
  }
  std::optional<FaultPlan> losses;
  if (settings_.loseWorkers) {
    losses.emplace(lostWorkers(random));
    for (auto &variable : losses->environment()) options.environment.push_back(std::move(variable));
  }
  RunResult result = testsupport::runRestore(fs_->mountPoint(), fileset, snapshot, workers, options);
  outcome->runText = result.describe();
  if (losses) {
    workersLost_ += losses->struck();
    outcome->runText += losses->describe();
  }
  if (result.timedOut) problems.push_back("timed out");
  if (result.exitStatus != 0) problems.push_back("exit status: " + std::to_string(result.exitStatus));
  if (result.processesLeft)
    problems.push_back("processes left: " + std::to_string(result.processesLeft));
  TreePrint after = printRestored(fileset, want);
  add("", compare(want, after));
  crossCheck("afterwards, ", after);
  add("", remadeOrTouched(want, before, after, !settings_.killBefore && !settings_.loseWorkers));
  add("snapshot changed: ", compare(want, testsupport::fingerprint(snapshot_path)));
  return problems.empty() ? judgeAgain(fileset, options, want, outcome) : problems;
}

// A mount of a CephFS may lose sight of names of a file with several, for good, after its own changes
// (docs/platform.md). So a tree that lacks nothing but such names is looked at again through a mount
// that has no past.
TreePrint Runner::printRestored(const std::string &fileset, const TreePrint &want) {
  TreePrint print = testsupport::fingerprint(fs_->path(fileset));
  const std::vector<std::string> lines = compare(want, print);
  const bool names_alone = std::all_of(lines.begin(), lines.end(), [](const std::string &line) {
    return line.starts_with("missing: ") || line.starts_with("hard-link group of ");
  });
  if (!TestFileSystem::onCephFs() || lines.empty() || !names_alone) return print;
  fs_->mountAgain();
  ++mountedAgain_;
  return testsupport::fingerprint(fs_->path(fileset));
}

// A second restore must find nothing to do, whatever the first made again.
std::vector<std::string> Runner::judgeAgain(const std::string &fileset, const RunOptions &options,
                                            const TreePrint &want, Outcome *outcome) {
  const std::string snapshot = fs_->snapshotName(fileset, kSnapshot);
  const TreePrint before = testsupport::fingerprint(fs_->path(fileset));
  const RunResult result = testsupport::runRestore(fs_->mountPoint(), fileset, snapshot, {}, options);
  const TreePrint after = printRestored(fileset, want);
  std::vector<std::string> problems = compare(want, after);
  const std::vector<std::string> touched = exchangedOrChanged(before, after);
  problems.insert(problems.end(), touched.begin(), touched.end());
  if (result.exitStatus != 0) problems.push_back("exit status: " + std::to_string(result.exitStatus));
  // The program counts one operation more than it lists.
  if ((result.err + result.out).find("] 1 operations have been added") == std::string::npos)
    problems.push_back("operations: something was listed");
  if (problems.empty()) return {};
  outcome->runText = "again, " + result.describe();
  for (std::string &line : problems) line = "again, " + line;
  return problems;
}

bool Runner::failsAlike(const History &history, uint64_t seed, const std::vector<std::string> &problems,
                        Outcome *outcome) {
  std::set<std::string> kinds;
  for (const std::string &line : problems) kinds.insert(kindOf(line));
  // A failure that depends on the order of workers or the moment of a kill may not happen every time.
  int tries = settings_.killBefore || settings_.loseWorkers ? 4 : seed % 2 ? 2 : 1;
  for (; tries > 0; --tries) {
    Outcome one = replay(history, seed);
    if (std::any_of(one.problems.begin(), one.problems.end(),
                    [&](const std::string &line) { return kinds.count(kindOf(line)) != 0; })) {
      *outcome = std::move(one);
      return true;
    }
  }
  return false;
}

Outcome Runner::shrink(const Outcome &failed, uint64_t seed) {
  Outcome best = failed;
  int tries = kMostTries;
  for (bool changed = true; changed && tries > 0;) {
    changed = false;
    for (auto section : {&History::later, &History::changes, &History::initial}) {
      for (size_t piece = std::max<size_t>(1, (best.history.*section).size() / 2);; piece /= 2) {
        for (size_t at = 0; at < (best.history.*section).size() && tries > 0; --tries) {
          History smaller = best.history;
          auto &operations = smaller.*section;
          size_t end = std::min(at + piece, operations.size());
          operations.erase(operations.begin() + static_cast<long>(at),
                           operations.begin() + static_cast<long>(end));
          if (failsAlike(smaller, seed, failed.problems, &best))
            changed = true;
          else
            at += piece;
        }
        if (piece <= 1) break;
      }
    }
  }
  return best;
}

}  // namespace histories
