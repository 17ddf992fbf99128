// restore_fixture.h: a scenario builds a tree, takes a snapshot, changes the tree, restores and
// compares.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/loop_btrfs.h"
#include "support/restore_run.h"
#include "support/test_file_system.h"
#include "support/tree_builder.h"
#include "support/tree_fingerprint.h"

namespace scenario {

using testsupport::RunOptions;
using testsupport::RunResult;
using testsupport::TreeBuilder;
using testsupport::TreePrint;

// One row of a table of histories. Without `build` the fileset starts empty.
struct HistoryCase {
  const char *name;
  void (*build)(TreeBuilder &);
  void (*change)(TreeBuilder &);
  unsigned needs = 0;  // features; see test_file_system.h
};

// Returns the cases of a table that the file system under test can hold.
template <size_t n>
auto casesOf(const HistoryCase (&table)[n]) {
  std::vector<HistoryCase> cases;
  for (const HistoryCase &one : table)
    if ((one.needs & ~testsupport::TestFileSystem::features()) == 0) cases.push_back(one);
  return ::testing::ValuesIn(cases);
}

// One file system for each test program, one new fileset for each test.
class RestoreFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  // For suites and tests that need a file system of their own.
  static void makeFileSystem(uint64_t bytes, const std::string &options = "");
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;

  // For tests of features that only btrfs has; throws std::bad_cast on another file system.
  static testsupport::LoopBtrfs &fs() { return dynamic_cast<testsupport::LoopBtrfs &>(*fs_); }
  static const std::string &device() { return fs_->mountPoint(); }
  const std::string &fileset() const { return fileset_; }
  std::string root() const { return fs_->path(fileset_); }
  TreeBuilder &tree() { return *tree_; }
  // Returns the name of a snapshot of this test's fileset.
  std::string snapshotName(const std::string &which = "snap") const {
    return fs_->snapshotName(fileset_, which);
  }
  std::string snapshotPath(const std::string &which = "snap") const {
    return fs_->snapshotPath(fileset_, which);
  }

  void detach();                                  // unmounts; tree() closes its root
  void remount(const std::string &options = "");  // also if it is not mounted
  void takeSnapshot(const std::string &which = "snap");
  // Restores with -m 4 and the given options. expectRestored also expects exit status 0, equal trees,
  // an unchanged snapshot, no work directory or process left, and that survivors were kept.
  RunResult restore(const std::string &which = "snap", const std::vector<std::string> &options = {},
                    const RunOptions &running = {});
  void expectRestored(const std::string &which = "snap", const std::vector<std::string> &options = {},
                      const RunOptions &running = {});
  // Runs one row of a table. It is an error if the trees are equal before the restore.
  void runCase(const HistoryCase &history);

 private:
  static std::unique_ptr<testsupport::TestFileSystem> fs_;
  static int number_;
  std::string fileset_;
  std::optional<TreeBuilder> tree_;
  std::vector<std::string> snapshots_;
};

// For tests of a table: TEST_P bodies call runCase(GetParam()).
class RestoreTable : public RestoreFixture, public ::testing::WithParamInterface<HistoryCase> {};

inline std::string caseName(const ::testing::TestParamInfo<HistoryCase> &info) {
  return info.param.name;
}
inline void PrintTo(const HistoryCase &history, std::ostream *out) {
  *out << history.name;
}

}  // namespace scenario
