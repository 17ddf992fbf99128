#include "scenario/restore_fixture.h"

#include "support/survival.h"

namespace scenario {

using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::TestFileSystem;

std::unique_ptr<TestFileSystem> RestoreFixture::fs_;
int RestoreFixture::number_ = 0;

void RestoreFixture::SetUpTestSuite() {
  makeFileSystem(1ull << 30);
}
void RestoreFixture::makeFileSystem(uint64_t bytes, const std::string &options) {
  fs_.reset();
  fs_ = TestFileSystem::make("scenario", bytes, options);
}
void RestoreFixture::TearDownTestSuite() {
  fs_.reset();
}

void RestoreFixture::SetUp() {
  fileset_ = "set" + std::to_string(++number_);
  fs_->makeFileset(fileset_);
  tree_.emplace(root());
}

void RestoreFixture::TearDown() {
  tree_.reset();
  for (const std::string &which : snapshots_) fs_->removeSnapshot(fileset_, which);
  snapshots_.clear();
  fs_->removeFileset(fileset_);
}

void RestoreFixture::detach() {
  tree_.reset();
  fs().unmount();
}

void RestoreFixture::remount(const std::string &options) {
  detach();
  fs().remount(options);
  tree_.emplace(root());
}

void RestoreFixture::takeSnapshot(const std::string &which) {
  fs_->takeSnapshot(fileset_, which);
  snapshots_.push_back(which);
  testsupport::awaitClockTick();
}

RunResult RestoreFixture::restore(const std::string &which, const std::vector<std::string> &options,
                                  const RunOptions &running) {
  std::vector<std::string> all{"-m", "4"};
  all.insert(all.end(), options.begin(), options.end());
  return testsupport::runRestore(fs_->mountPoint(), fileset_, snapshotName(which), all, running);
}

void RestoreFixture::expectRestored(const std::string &which, const std::vector<std::string> &options,
                                    const RunOptions &running) {
  const std::string snapshot = snapshotPath(which);
  TreePrint want = fingerprint(snapshot), before = fingerprint(root());
  RunResult result = restore(which, options, running);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.processesLeft, 0);
  TreePrint after = fingerprint(root());
  EXPECT_EQ(joined(compare(want, after)), "") << result.describe();
  EXPECT_EQ(joined(remadeOrTouched(want, before, after, true)), "");
  EXPECT_EQ(joined(compare(want, fingerprint(snapshot))), "") << "the snapshot itself changed";
}

void RestoreFixture::runCase(const HistoryCase &history) {
  if (history.build) history.build(tree());
  takeSnapshot();
  history.change(tree());
  ASSERT_NE(joined(compare(fingerprint(snapshotPath()), fingerprint(root()))), "")
      << "the history changes nothing";
  expectRestored();
}

}  // namespace scenario
