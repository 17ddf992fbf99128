#include "oplist/policy_run.h"

#include "oplist/policy_file.h"
#include "record/record_format.h"
#include "run/fatal_error.h"
#include "unit/oplist/work_area.h"

namespace {

class PolicyRun : public WorkArea {
 protected:
  void SetUp() override {
    WorkArea::SetUp();
    settings.exe = "/opt/it's/fsetrestore";
    list_ = workPath(kOpList);
    put(list_, formatListRecord(0, 300, "/fs/a", formatOpString(kOpDeleteFile)));
  }
  // A command that notes each run and ends with `exit`.
  std::string engine(const std::string &exit) { return "sh -c 'echo run >> " + settings.shareDir + "/runs; " + exit + "'"; }
  size_t runs() {
    const std::string text = get(settings.shareDir + "/runs");
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  }
  std::string list_;
};

TEST_F(PolicyRun, PolicyFileIsExactAndQuotesItsTexts) {
  ASSERT_EQ(writePolicyFile(settings.exe, "-d /dev/x -c 4242", ""), 0);
  EXPECT_EQ(get(workPath(kPolicy)),
            "RULE EXTERNAL LIST 'all'  EXEC '/opt/it''s/fsetrestore' OPTS ' -d /dev/x -c 4242'\n"
            "          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n"
            "          SHOW('d')WHERE MODE LIKE 'd%'\n");
  // A policy file left by a dead process would name a caller that no longer reads checkpoints.
  const std::string nested = settings.shareDir + "/nested";
  put(nested, "left by another process");
  ASSERT_EQ(writePolicyFile("/x", "-c 1", nested), 0);
  EXPECT_EQ(get(nested).find("left"), std::string::npos);
}

TEST_F(PolicyRun, SuccessRemovesTheCheckpointsOfThisProcessAlone) {
  const std::string mine = checkpointFile(getpid(), "host", 1);
  const std::string other = checkpointFile(getpid() * 10 + 2, "host", 1);  // same leading digits
  put(mine, "12c 7,0,0,0,0\n");
  put(other, "12c 7,0,0,0,0\n");
  EXPECT_EQ(executePolicy(engine("exit 0"), "-p 3", "", list_), 0);
  EXPECT_EQ(runs(), 1u);
  EXPECT_FALSE(exists(mine));
  EXPECT_TRUE(exists(other));
}

TEST_F(PolicyRun, EmptyListStartsNothing) {
  put(list_, "");
  EXPECT_EQ(executePolicy(engine("exit 9"), "-p 3", "", list_), 0);
  EXPECT_EQ(runs(), 0u);
}

TEST_F(PolicyRun, FailureIsRetriedThreeTimesOverWhatIsLeft) {
  put(list_, get(list_) + formatListRecord(0, 301, "/fs/b", formatOpString(kOpDeleteFile)));
  put(checkpointFile(getpid(), "host", 1), "12c 7,0,0,0,0\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(executePolicy(engine("exit 9"), "-p 3", "", list_), 9);
  const std::string shown = testing::internal::GetCapturedStderr();
  EXPECT_EQ(runs(), 4u);
  EXPECT_NE(shown.find("Get an error from policy engine, retry again for the 1 times.\n"), std::string::npos);
  EXPECT_NE(shown.find("for the 3 times.\n"), std::string::npos);
  EXPECT_EQ(shown.find("for the 4 times.\n"), std::string::npos);
  EXPECT_EQ(get(list_), formatListRecord(0, 301, "/fs/b", formatOpString(kOpDeleteFile)));
}

TEST_F(PolicyRun, RecordedErrorStopsTheRetries) {
  ASSERT_EQ(setFatalError(5), 0);
  EXPECT_EQ(executePolicy(engine("exit 1"), "-p 3", "", list_), 1);
  EXPECT_EQ(runs(), 1u);
}

TEST_F(PolicyRun, KilledEngineIsAFailure) {
  ASSERT_EQ(setFatalError(5), 0);
  EXPECT_EQ(executePolicy(engine("kill -9 $$"), "-p 3", "", list_), 128 + 9);
}

}  // namespace
