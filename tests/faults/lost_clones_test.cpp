// Workers are killed while they move clones aside and make them again.
#include "faults/faults_fixture.h"

using namespace faults;
using testsupport::TreeBuilder;

namespace {

constexpr int kClones = 7, kCloneDelete = 31;

void build(TreeBuilder &t) {
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
}

void change(TreeBuilder &t) {
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

class LostClones : public Faults {
 protected:
  void expectEachRetried(const char *call, int phase, uint64_t count) {
    for (uint64_t nth = 1; nth <= count; ++nth)
      for (FaultAction action : {FaultAction::kKillBefore, FaultAction::kKillAfter}) {
        const Fault fault{.call = call, .action = action, .where = phase, .nth = nth};
        SCOPED_TRACE(fault.words());
        prepareHistory(build, nullptr, change);
        expectEqual(restoreWith(fault));
      }
  }
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
  expectEachRetried("kest_iset_times", kClones, 5);
}

}  // namespace
