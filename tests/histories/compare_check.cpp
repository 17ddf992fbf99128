#include "histories/compare_check.h"

#include <algorithm>
#include <sstream>

#include "support/restore_run.h"
#include "support/tree_fingerprint.h"

namespace histories {

using testsupport::RunResult;

namespace {

std::vector<std::string> sortedLines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace

std::vector<std::string> checkCompare(const std::string &device, const std::string &fileset,
                                      const std::string &snapshot, const std::string &when,
                                      const std::vector<std::string> &differences) {
  std::vector<std::string> problems;
  testsupport::RunOptions options;
  options.program = "/usr/qtx/kest/bin/fsetcompare";
  const RunResult fast = testsupport::runRestore(device, fileset, snapshot, {}, options);
  const RunResult full = testsupport::runRestore(device, fileset, snapshot, {"--full"}, options);
  const int wanted = differences.empty() ? 0 : 1;
  const auto shownRuns = [&] {
    return "\nfingerprints: " + testsupport::joined(differences, 10) + "fast: " + fast.describe() +
           "full: " + full.describe();
  };
  if (fast.exitStatus != wanted || full.exitStatus != wanted)
    problems.push_back(when + ", fsetcompare judges otherwise: want " + std::to_string(wanted) +
                       shownRuns());
  else if (sortedLines(fast.out) != sortedLines(full.out))
    problems.push_back(when + ", fsetcompare tells two things: " + shownRuns());
  return problems;
}

}  // namespace histories
