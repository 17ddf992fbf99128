// A worker, the policy engine or the master is killed at a chosen call.
#include "faults/faults_fixture.h"

using namespace faults;

namespace {

class LostProcesses : public Faults {
 protected:
  // Expects that the run notices the loss, repeats what was not done, and ends equal.
  void expectRetried(const Fault &fault, unsigned items = 0) {
    SCOPED_TRACE(fault.words());
    prepare();
    RunResult result = restoreWith(fault, items);
    EXPECT_EQ(retriesTold(result), 1) << what();
    expectEqual(result);
  }
};

struct Place {
  int phase;
  const char *call;
  uint64_t nth;
};

TEST_F(LostProcesses, WorkerInTheMiddleOfAStep) {
  const Place places[] = {{kMain, "kest_unlink", 1},      {kMain, "kest_rename_noreplace", 3},
                          {kMain, "kest_ishare", 2},      {kMain, "kest_iset_times", 1},
                          {kMain, "kest_iputattrsx", 1},  {kMain, "kest_mkdir", 2},
                          {kMain, "kest_rmdir", 1},       {kCreate, "kest_icreate", 2},
                          {kCreate, "kest_symlink", 1},   {kCreate, "kest_mknod", 1},
                          {kCreate, "kest_ishare", 1},    {kCreate, "kest_iset_times", 1},
                          {kDirs, "kest_iset_times", 3},  {kDirs, "kest_ifacts", 9},
                          {kLinks, "kest_icreate", 1},    {kLinks, "kest_link", 1},
                          {kLinks, "kest_iset_times", 1}, {kMoveBack, "kest_ifacts", 4}};
  FaultAction action = FaultAction::kKillBefore;
  for (const Place &place : places) {
    expectRetried({.call = place.call, .action = action, .where = place.phase, .nth = place.nth});
    action = action == FaultAction::kKillBefore ? FaultAction::kKillAfter : FaultAction::kKillBefore;
  }
}

// The object is home and the repeated record does not find it where it waited. Its attributes must
// still be restored.
TEST_F(LostProcesses, WorkerBetweenRenameAndAttributes) {
  for (uint64_t nth = 1; nth <= calls().at({"kest_rename_noreplace", kMoveBack}); ++nth)
    expectRetried({.call = "kest_rename_noreplace",
                   .action = FaultAction::kKillAfter,
                   .where = kMoveBack,
                   .nth = nth});
}

// The same after the place was taken at first, in a run of several passes by an object of a later pass.
TEST_F(LostProcesses, WorkerBetweenRenameAndAttributesOfAPendingMove) {
  for (FaultAction action : {FaultAction::kKillBefore, FaultAction::kKillAfter})
    for (unsigned items : {1, 3})
      expectRetried({.call = "kest_rename_noreplace", .action = action, .where = kPending}, items);
}

// The records of two names of one inode look alike, so a checkpoint of one must not count for the
// other.
TEST_F(LostProcesses, WorkerBetweenTwoNamesOfOneInode) {
  for (uint64_t nth = 1; nth <= calls().at({"kest_unlink", kMain}); ++nth)
    expectRetried(
        {.call = "kest_unlink", .action = FaultAction::kKillBefore, .where = kMain, .nth = nth});
}

TEST_F(LostProcesses, EngineOnceIsRetried) {
  const Place places[] = {
      {kMain, "kest_ishare", 1}, {kMoveBack, "kest_rename_noreplace", 2}, {kCreate, "kest_icreate", 3}};
  for (const auto &[phase, call, nth] : places)
    expectRetried({.call = call, .action = FaultAction::kKillEngine, .where = phase, .nth = nth});
}

TEST_F(LostProcesses, WhatDiesEveryTimeIsGivenUp) {
  const Place places[] = {{kMain, "kest_ishare", 2}, {kMoveBack, "kest_rename_noreplace", 2},
                          {kCreate, "*", 3},         {kDirs, "kest_iset_times", 1},
                          {kLinks, "kest_link", 1},  {kMoveBack, "kest_statfs64", 1}};
  for (const auto &[phase, call, nth] : places) {
    const bool engine = std::string(call) == "kest_statfs64";
    const Fault fault{.call = call,
                      .action = engine ? FaultAction::kKillEngine : FaultAction::kKillBefore,
                      .where = phase,
                      .nth = nth,
                      .times = 0};
    SCOPED_TRACE(fault.words());
    prepare();
    RunResult result = restoreWith(fault);
    EXPECT_EQ(result.exitStatus, 1) << what();
    EXPECT_EQ(retriesTold(result), 3) << what();
    expectRepairedByNextRun();
  }
}

TEST_F(LostProcesses, MasterThenTheSameCommand) {
  const std::pair<const char *, uint64_t> places[] = {{"kest_rename_noreplace", 2},
                                                      {"kest_rename_noreplace", 7},
                                                      {"kest_symlink", 1},
                                                      {"kest_iset_times", 1}};
  for (const auto &[call, nth] : places) {
    const Fault fault{.call = call, .action = FaultAction::kKillAfter, .where = kMaster, .nth = nth};
    SCOPED_TRACE(fault.words());
    prepare();
    EXPECT_EQ(restoreWith(fault).signal, 9) << what();
    expectRepairedByNextRun();
  }
}

// Kills around a change of owner: no program that a user made or marked may be left as a set-user-ID
// program of root.
TEST_F(LostProcesses, NoUsersProgramIsLeftToRoot) {
  constexpr uid_t kUser = 1001;
  tree().file("program", "a user's", 04755);
  tree().chown("program", kUser, kUser);
  tree().chmod("program", 04755);
  tree().file("tool", "root's", 0755);
  takeSnapshot();
  for (const int phase : {kMain, kCreate}) {
    for (const char *call : {"kest_ichown", "kest_ichmod"}) {
      tree().remove("program");
      tree().chown("tool", kUser, kUser);
      tree().chmod("tool", 04755);
      const Fault fault{.call = call, .action = FaultAction::kKillBefore, .where = phase, .times = 0};
      SCOPED_TRACE(fault.words());
      EXPECT_EQ(restoreWith(fault).exitStatus, 1);
      for (const auto &[path, one] : testsupport::fingerprint(root()).objects)
        EXPECT_FALSE(one.uid == 0 && S_ISREG(one.mode) && (one.mode & (S_ISUID | S_ISGID))) << path;
      expectRestored("snap");
    }
  }
}

}  // namespace
