// Workers killed while they take clones away and make them again.
#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

using namespace scenario;
using testsupport::compare;
using testsupport::Fault;
using testsupport::FaultAction;
using testsupport::fingerprint;
using testsupport::joined;

namespace {

constexpr int kMain = 3, kClones = 7, kCloneDelete = 31;

class LostClones : public RestoreFixture {
 protected:
  void prepare() {
    if (used_) {
      TearDown();
      SetUp();
    }
    used_ = true;
    TreeBuilder &t = tree();
    t.dirs("d");
    t.big("p", 100000, 1);
    t.cloneParent("p");
    t.clone("p", "stays");
    for (const char *name : {"d/a", "d/b", "d/c", "d/m"}) {
      t.clone("p", name);
      t.pattern(name, 20000, 3000, static_cast<uint64_t>(name[2]));
      t.mtime(name, 1000000000, 7);
      t.setXattr(name, "user.name", name);
    }
    t.cloneParent("d/m");
    t.clone("d/m", "d/ma");
    t.link("d/ma", "mb");
    takeSnapshot();
    for (const char *name : {"p", "d/m"}) t.immutable(name, false);
    for (const char *name : {"d/a", "d/b", "d/c", "d/ma", "mb"}) t.remove(name);
    t.rename("d/m", "old");
    t.clone("p", "new1");
    t.cloneParent("new1");
    t.clone("new1", "d/new2");
    t.link("d/new2", "d/new3");
    t.remove("old");
    t.remove("p");
  }

  void expectRetried(const Fault &fault) {
    SCOPED_TRACE(fault.words());
    prepare();
    TreePrint want = fingerprint(fs().path(snapshotName()));
    testsupport::FaultPlan plan(fault);
    RunOptions options;
    options.environment = plan.environment();
    RunResult result = restore("snap", {}, options);
    EXPECT_NE(plan.struck(), 0u) << plan.describe();
    EXPECT_EQ(result.exitStatus, 0) << plan.describe() << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(root()))), "") << plan.describe() << result.describe();
  }

  void expectEachRetried(const char *call, int phase, uint64_t count) {
    for (uint64_t nth = 1; nth <= count; ++nth)
      for (FaultAction action : {FaultAction::kKillBefore, FaultAction::kKillAfter})
        expectRetried({.call = call, .action = action, .where = phase, .nth = nth});
  }

 private:
  bool used_ = false;
};

TEST_F(LostClones, WorkerThatSetsThemAside) {
  expectEachRetried("kest_rename_noreplace", kMain, 3);
}

TEST_F(LostClones, WorkerThatDeletesThem) {
  expectEachRetried("kest_unlink", kCloneDelete, 2);
}

TEST_F(LostClones, WorkerThatMakesThem) {
  expectEachRetried("kest_iclone_copy", kClones, 5);
  expectEachRetried("kest_ishare", kClones, 5);
  expectEachRetried("kest_iputattrsx", kClones, 5);
  expectEachRetried("kest_iclone_snap", kClones, 2);
  expectEachRetried("kest_fset_times", kClones, 5);
}

}  // namespace
