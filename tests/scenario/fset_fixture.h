// fset_fixture.h: runs fset like a user and compares the trees independently.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "scenario/restore_fixture.h"

namespace scenario {

using Json = nlohmann::json;

inline RunResult runFset(const std::vector<std::string> &arguments, const std::string &directory = "/",
                         const std::vector<std::pair<std::string, std::string>> &environment = {}) {
  RunOptions running;
  running.program = "/usr/qtx/kest/bin/fset";
  running.workingDirectory = directory;
  running.environment = environment;
  return testsupport::runProgram(arguments, running);
}

// Runs fset with --json. Output that is no JSON is a failure.
inline Json fsetJson(std::vector<std::string> arguments, int status = 0,
                     const std::string &directory = "/") {
  arguments.push_back("--json");
  const RunResult result = runFset(arguments, directory);
  EXPECT_EQ(result.exitStatus, status) << result.describe();
  Json object = Json::parse(result.out, nullptr, false);
  EXPECT_TRUE(object.is_object()) << result.describe();
  return object;
}

// Runs list, diff, restore and undo on the fileset of `place`, whose tree is at `root`, with
// `snapshot`, whose tree is at `snapshotRoot`. Checks that the tree becomes that of the snapshot, and
// then what it was before.
inline void expectThereAndBack(const std::vector<std::string> &place, const std::string &root,
                               const std::string &snapshot, const std::string &snapshotRoot,
                               const testsupport::FingerprintOptions &options = {}) {
  using testsupport::compare;
  using testsupport::joined;
  const auto with = [&](const char *command, std::vector<std::string> more) {
    std::vector<std::string> all{command};
    all.insert(all.end(), place.begin(), place.end());
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  const auto fingerprint = [&](const std::string &tree) {
    return testsupport::fingerprint(tree, options);
  };
  const TreePrint wrecked = fingerprint(root), want = fingerprint(snapshotRoot);
  ASSERT_NE(joined(compare(want, wrecked)), "");
  EXPECT_GT(fsetJson(with("diff", {snapshot}), 1)["summary"]["lines"], 0);
  Json restored = fsetJson(with("restore", {snapshot, "--yes"}));
  EXPECT_EQ(restored["differences_left"], 0) << restored.dump(2);
  EXPECT_EQ(joined(compare(want, fingerprint(root))), "");
  EXPECT_EQ(fsetJson(with("diff", {snapshot}))["equal"], true);
  const Json backup = fsetJson(with("list", {}))["snapshots"][0];
  EXPECT_EQ(backup["path"], restored["backup"]);
  EXPECT_EQ(backup["before"], "restore");
  EXPECT_EQ(fsetJson(with("undo", {"--yes"}))["differences_left"], 0);
  EXPECT_EQ(joined(compare(wrecked, fingerprint(root))), "");
}

}  // namespace scenario
