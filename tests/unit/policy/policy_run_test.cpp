#include "policy/policy_run.h"

#include "formats/list_record.h"
#include "run/fatal_error.h"
#include "unit/support/work_area.h"

namespace {

const std::string kDone = formatListRecord(0, 300, "/fs/a", {kOpDeleteFile});
const std::string kLeft = formatListRecord(0, 301, "/fs/b", {kOpDeleteFile});

class PolicyRun : public WorkArea {
 protected:
  void SetUp() override {
    WorkArea::SetUp();
    put(kOpList, kDone + kLeft);
    put(checkpointFile(getpid(), "host", 1), "12c 7,0,0,0,0\n");
  }
  // Runs a command that records each of its runs and ends with `exit`.
  int runs(const std::string &exit) {
    const std::string note = "sh -c 'echo >> " + at("runs") + "; " + exit + "'";
    return executePolicy({note, "-p 3", at(kOpList), at(kPolicy), area_}).rc;
  }
  size_t ran() { return get("runs").size(); }
};

TEST_F(PolicyRun, PolicyFileIsExactAndQuotesItsTexts) {
  put(kPolicy, std::string(1000, 'x'));  // left by a dead process
  settings.exe = "/opt/it's/fsetrestore";
  ASSERT_EQ(runs("exit 0"), 0);
  EXPECT_EQ(get(kPolicy), "RULE EXTERNAL LIST 'all'  EXEC '/opt/it''s/fsetrestore' OPTS ' -p 3 -c " +
                              std::to_string(getpid()) +
                              "'\n          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n"
                              "          SHOW('d')WHERE MODE LIKE 'd%'\n");
}

TEST_F(PolicyRun, SuccessRemovesTheCheckpointsOfThisProcessAlone) {
  const std::string other = checkpointFile(getpid() * 10 + 2, "host", 1);  // same leading digits
  put(other, "12c 7,0,0,0,0\n");
  EXPECT_EQ(runs("exit 0"), 0);
  EXPECT_EQ(ran(), 1u);
  EXPECT_FALSE(exists(checkpointFile(getpid(), "host", 1)));
  EXPECT_TRUE(exists(other));
}

TEST_F(PolicyRun, FailureIsRetriedThreeTimesOverWhatIsLeft) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(runs("exit 9"), 9);
  const std::string shown = testing::internal::GetCapturedStderr();
  EXPECT_EQ(ran(), 4u);
  EXPECT_NE(shown.find("Get an error from policy engine, retry again for the 3 times.\n"),
            std::string::npos);
  EXPECT_EQ(get(kOpList), kLeft);
}

TEST_F(PolicyRun, RecordedErrorStopsTheRetries) {
  setFatalError(5);
  EXPECT_EQ(runs("kill -9 $$"), 128 + 9);
  EXPECT_EQ(ran(), 1u);
}

}  // namespace
