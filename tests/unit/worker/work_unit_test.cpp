#include "worker/work_unit.h"

#include <cerrno>
#include <filesystem>

#include "run/fatal_error.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "unit/support/fake_kest.h"

namespace {

class WorkUnit : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    settings.phase = kPhaseMain;
    for (const char *name : {"a", "b", "c d", "e"}) makeFile(active(name));
  }
  int run(const std::string &batch) {
    const std::string path = folder_ + "/batch";
    makeFile(path, batch);
    return doWorkUnit(path, 42);
  }
  std::string deletion(int ino, const std::string &name, const std::string &op = "7,0,0,0,0") const {
    return std::to_string(ino) + " 0 0 " + op + " -- " + active(name) + "\n";
  }
  std::string checkpoints() const { return read(workPath(checkpointFile(42, hostName(), getpid()))); }
  std::string marker() const { return read(workPath(kFatalError)); }
  bool exists(const std::string &name) const { return std::filesystem::exists(active(name)); }
};

TEST_F(WorkUnit, PerformsAllRecordsAndCheckpointsEach) {
  EXPECT_EQ(run(""), 0);
  EXPECT_TRUE(std::filesystem::exists(workPath(checkpointFile(42, hostName(), getpid()))));
  EXPECT_EQ(run(deletion(300, "a") + deletion(301, "c d")), 0);
  EXPECT_EQ(checkpoints(), "12c 7,0,0,0,0\n12d 7,0,0,0,0\n");
  EXPECT_FALSE(exists("a"));
  EXPECT_FALSE(exists("c d"));
  EXPECT_EQ(marker(), "");
}

TEST_F(WorkUnit, FirstFailureEndsTheBatch) {
  const std::string two = deletion(300, "a") + deletion(301, "b");
  const std::vector<std::string> thirds = {
      deletion(302, "c d", "9,0,0,0,0"),  // unknown operation
      deletion(302, "c d", "5,0,0,0,0"),  // never in a batch
      deletion(302, "c d", "7,0,0"),      // no op string
      "302 0 0\n",                        // no record
      "302 0 0 7,0,0,0,0 -- /" + std::string(17000, 'x') + "\n",
  };
  for (const std::string &third : thirds) {
    makeFile(active("a"));
    makeFile(active("b"));
    unlink(workPath(kFatalError).c_str());
    unlink(workPath(checkpointFile(42, hostName(), getpid())).c_str());
    EXPECT_NE(run(two + third + deletion(303, "e")), 0) << third.substr(0, 40);
    EXPECT_EQ(checkpoints(), "12c 7,0,0,0,0\n12d 7,0,0,0,0\n");
    EXPECT_NE(getFatalError(), 0);
    EXPECT_NE(marker().substr(0, 2), "0\n");
    EXPECT_TRUE(exists("e"));
  }
  // A path that may have been cut off is not used.
  const std::string cut = deletion(302, "c d");
  EXPECT_EQ(run(cut.substr(0, cut.size() - 1)), EINVAL);
  EXPECT_TRUE(exists("c d"));
}

TEST_F(WorkUnit, ResultAndMarkerAreTheErrorOfTheFailingStep) {
  fakeKest.fault = [](const std::string &call, const std::string &) {
    return call == "unlink" ? ENOSPC : 0;
  };
  EXPECT_EQ(run(deletion(300, "a")), ENOSPC);
  EXPECT_EQ(marker(), "28\n");
  EXPECT_NE(traces().find("doWorkUnit: rc -1, code 5, error 28\n"), std::string::npos);
}

TEST_F(WorkUnit, BatchOrCheckpointFileThatCannotBeOpenedStops) {
  EXPECT_EQ(doWorkUnit(folder_ + "/none", 42), ENOENT);
  EXPECT_EQ(marker(), "2\n");
  std::filesystem::remove_all(workPath(kCheckpointDir));
  EXPECT_EQ(run(deletion(300, "a")), ENOENT);
  EXPECT_NE(traces().find("doWorkUnit: rc -1, code 3, error 2\n"), std::string::npos);
  EXPECT_TRUE(exists("a"));
}

}  // namespace
