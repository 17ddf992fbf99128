#include "worker/work_unit.h"

#include <cerrno>
#include <fstream>

#include "run/fatal_error.h"
#include "unit/support/real_fileset.h"

namespace {

class WorkUnit : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    settings.phase = kPhaseMain;
    make();
  }
  void make() {
    for (const char *name : {"a", "b c", "d", "e"})
      if (!tree.exists(name)) tree.file(name);
  }
  int run(const std::string &batch) {
    std::ofstream(active("batch")) << batch;
    return doWorkUnit(active("batch"), 42);
  }
  std::string deletion(const std::string &name, const std::string &op = "7,0,0,0,0") const {
    return std::to_string(tree.inode(name)) + " 0 0 " + op + " -- " + active(name) + "\n";
  }
  std::string checkpoint() const { return workPath(checkpointFile(42, hostName(), getpid())); }
  std::string marker() const { return read(workPath(kFatalError)); }
};

TEST_F(WorkUnit, FirstFailureEndsTheBatch) {
  EXPECT_EQ(run(""), 0);
  EXPECT_TRUE(exists(checkpoint()));
  const std::string cut = deletion("d");
  const std::string thirds[] = {
      deletion("d", "9,0,0,0,0"),  // unknown operation
      deletion("d", "5,0,0,0,0"),  // never in a batch
      deletion("d", "7,0,0"),      // no op string
      "302 0 0\n",                 // no record
      "302 0 0 7,0,0,0,0 -- /" + std::string(17000, 'x') + "\n",
      cut.substr(0, cut.size() - 1),  // the path may have been cut off
      "",
  };
  for (const std::string &third : thirds) {
    SCOPED_TRACE(third.substr(0, 40));
    make();
    unlink(workPath(kFatalError).c_str());
    unlink(checkpoint().c_str());
    const std::string two = deletion("a") + deletion("b c");
    char done[100];
    snprintf(done, sizeof done, "%llx 7,0,0,0,0\n%llx 7,0,0,0,0\n",
             static_cast<unsigned long long>(tree.inode("a")),
             static_cast<unsigned long long>(tree.inode("b c")));
    const bool good = third.empty();
    EXPECT_EQ(run(two + third + (third.ends_with('\n') ? deletion("e") : "")) == 0, good);
    EXPECT_EQ(read(checkpoint()), done);
    EXPECT_EQ(getFatalError() == 0, good);
    EXPECT_NE(marker().substr(0, 2), "0\n");
    EXPECT_TRUE(tree.exists("d") && tree.exists("e"));
    EXPECT_FALSE(tree.exists("a") || tree.exists("b c"));
  }
}

TEST_F(WorkUnit, ResultAndMarkerAreTheErrorOfTheFailingStep) {
  refusal = [](const std::string &call) { return call == "kest_unlink" ? ENOSPC : 0; };
  EXPECT_EQ(run(deletion("a")), ENOSPC);
  EXPECT_EQ(marker(), "28\n");
}

TEST_F(WorkUnit, BatchOrCheckpointFileThatCannotBeOpenedStops) {
  EXPECT_EQ(doWorkUnit(active("none"), 42), ENOENT);
  EXPECT_EQ(marker(), "2\n");
  tree.removeTree("RestoreTemp47/checkpoint");
  EXPECT_EQ(run(deletion("a")), ENOENT);
  EXPECT_TRUE(tree.exists("a"));
}

}  // namespace
