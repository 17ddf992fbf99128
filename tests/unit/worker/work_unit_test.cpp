#include "worker/work_unit.h"

#include <algorithm>
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
  Result run(const std::string &batch) {
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
  EXPECT_TRUE(run(""));
  EXPECT_TRUE(exists(checkpoint()));
  std::string thirds[] = {
      deletion("d", "9,0,0,0,0"),  // unknown operation
      deletion("d", "5,0,0,0,0"),  // never in a batch
      deletion("d", "7,0,0"),      // no op string
      "302 0 0\n",                 // not a record
      "302 0 0 7,0,0,0,0 -- /" + std::string(17000, 'x') + "\n",
      deletion("d"),  // cut off below, in the middle of its path
  };
  for (std::string &third : thirds) {
    SCOPED_TRACE(third.substr(0, 40));
    make();
    unlink(workPath(kFatalError).c_str());
    unlink(checkpoint().c_str());
    char done[100];
    snprintf(done, sizeof done, "%zx 7,0,0,0,0\n%zx 7,0,0,0,0\n", tree.inode("a"), tree.inode("b c"));
    if (&third == std::end(thirds) - 1) {
      third.pop_back();
    } else {
      third += deletion("e");
    }
    EXPECT_FALSE(run(deletion("a") + deletion("b c") + third));
    EXPECT_EQ(read(checkpoint()), done);
    EXPECT_FALSE(recordedError());
    EXPECT_NE(marker().substr(0, 2), "0\n");
    EXPECT_TRUE(tree.exists("d") && tree.exists("e"));
    EXPECT_FALSE(tree.exists("a") || tree.exists("b c"));
  }
  EXPECT_TRUE(run(deletion("d")));
}

TEST_F(WorkUnit, ResultAndMarkerAreTheErrorOfTheFailingStep) {
  refusal = [](const std::string &call) { return call == "kest_unlink" ? ENOSPC : 0; };
  EXPECT_EQ(run(deletion("a")).rc, ENOSPC);
  EXPECT_EQ(marker(), "28\n");
}

TEST_F(WorkUnit, LinesAreWrittenBeforeAStepThatDependsOnThem) {
  // A deletion that is repeated does nothing, so its line may wait; a move depends on what was deleted.
  std::string before_move;
  refusal = [&](const std::string &call) {
    if (call == "kest_rename_noreplace" && before_move.empty()) before_move = read(checkpoint());
    return 0;
  };
  EXPECT_TRUE(run(deletion("a") + deletion("b c") + deletion("d") + deletion("e", "4,0,0,0,0")));
  EXPECT_EQ(std::count(before_move.begin(), before_move.end(), '\n'), 3);
}

TEST_F(WorkUnit, BatchOrCheckpointFileThatCannotBeOpenedStops) {
  EXPECT_EQ(doWorkUnit(active("none"), 42).rc, ENOENT);
  EXPECT_EQ(marker(), "2\n");
  tree.file("planted", deletion("a"));
  tree.chown("planted", 1000, 0);
  EXPECT_EQ(doWorkUnit(active("planted"), 42).rc, EPERM) << "the batch of another user";
  tree.removeTree("RestoreTemp47/checkpoint");
  EXPECT_EQ(run(deletion("a")).rc, ENOENT);
  EXPECT_TRUE(tree.exists("a"));
}

}  // namespace
