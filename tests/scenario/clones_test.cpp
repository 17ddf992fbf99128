// Clones and clone parents: trees of several depths are restored as such and share what they shared.
#include <sys/statvfs.h>
#include <sys/xattr.h>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

using namespace scenario;

namespace {

// A parent with two clones, one of them changed, a clone that is a parent itself, and an ordinary file.
void family(TreeBuilder &t) {
  t.dirs("d/sub");
  t.dirs("e");
  t.big("p", 300000, 1);
  t.setXattr("p", "user.of", "the parent");
  t.cloneParent("p");
  t.clone("p", "c");
  t.clone("p", "d/c");
  t.pattern("d/c", 8192, 5000, 2);
  t.append("d/c", std::string(9000, 'z'));
  t.setXattr("d/c", "user.of", "a clone");
  t.chmod("d/c", 0640);
  t.clone("p", "d/sub/m");
  t.pattern("d/sub/m", 100000, 5000, 3);
  t.truncate("d/sub/m", 200000);
  t.cloneParent("d/sub/m");
  t.clone("d/sub/m", "e/mc");
  t.punch("e/mc", 4096, 8192);
  t.big("alone", 50000, 4);
  t.mtime("c", 1000000000, 17);
}

void linkedFamily(TreeBuilder &t) {
  t.dirs("d");
  t.big("p", 50000, 1);
  t.link("p", "d/p2");
  t.cloneParent("p");
  t.clone("p", "c");
  t.pattern("c", 4096, 100, 2);
  t.link("c", "d/c2");
  t.link("c", "d/c3");
  t.big("q", 50000, 1);
  t.link("q", "d/q2");
  t.cloneParent("q");
  t.clone("q", "qc");
}

void removeAll(TreeBuilder &t, const std::vector<std::string> &names) {
  for (const std::string &name : names) {
    if (!t.isDir(name)) t.immutable(name, false);
    t.remove(name);
  }
}

const HistoryCase kCases[] = {
    {"ChangedInPlace", family,
     [](TreeBuilder &t) {
       t.pattern("c", 50000, 9000, 77);
       t.truncate("d/c", 100);
       t.append("e/mc", std::string(70000, 'q'));
       t.immutable("p", false);
       t.pattern("p", 0, 20000, 99);
       t.truncate("p", 250000);
     }},
    {"CloneAtTheNameOfAnother", family,
     [](TreeBuilder &t) {
       t.remove("c");
       t.rename("d/c", "c");
     }},
    {"InAMovedDirectory", family,
     [](TreeBuilder &t) {
       t.rename("d", "e/d");
       t.remove("e/d/c");
       t.pattern("e/mc", 0, 100, 5);
       removeAll(t, {"e/d/sub/m"});
       t.file("e/d/c", "another");
     }},
    {"BecameParents",
     [](TreeBuilder &t) {
       family(t);
       t.big("moves", 20000, 1);
       t.big("f", 20000, 1);
       t.link("f", "d/g");
     },
     [](TreeBuilder &t) {
       for (const char *name : {"alone", "d/c", "f"}) t.cloneParent(name);
       t.clone("alone", "e/of-alone");
       t.clone("d/c", "e/third");
       t.immutable("f", false);
       t.link("f", "third");
       t.immutable("f");
       t.rename("moves", "d/moves");
       t.cloneParent("d/moves");
     }},
    {"CloneAttributesLost", family,
     [](TreeBuilder &t) {
       // Making it again must not change the times of its directory, which is unchanged.
       for (const char *name : {"c", "d/c"}) t.removeXattr(name, "trusted.kest.CLONE");
       t.immutable("p", false);
       t.removeXattr("p", "trusted.kest.CLONE");
     }},
    {"FlagsInTheWay",
     [](TreeBuilder &t) {
       family(t);
       t.immutable("d/c");
       t.immutable("d");
     },
     [](TreeBuilder &t) {
       t.immutable("d", false);
       removeAll(t, {"p", "d/c", "d/sub/m"});
       t.immutable("d");
     }},
    {"LinkedAllGoneOrOneNameAlone", linkedFamily,
     [](TreeBuilder &t) {
       removeAll(t, {"p", "d/p2", "c", "d/c2", "d/c3", "d/q2", "qc"});
     }},
    {"ParentWasGoneAlready",
     [](TreeBuilder &t) {
       family(t);
       removeAll(t, {"p"});
     },
     [](TreeBuilder &t) {
       removeAll(t, {"c", "d/c", "d/sub/m", "e/mc"});
     }},
    {"ParentBecameOneOfAnotherDepth",
     [](TreeBuilder &t) {
       family(t);
       t.immutable("d/sub/m", false);
       t.removeXattr("d/sub/m", "trusted.kest.CLONE");
       t.cloneParent("d/sub/m");
     },
     [](TreeBuilder &t) { t.remove("e/mc"); }},
};

TEST_P(RestoreTable, Clones) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Clones, RestoreTable, casesOf(kCases), caseName);

class CloneTrees : public RestoreFixture {
 protected:
  uint64_t used() {
    fs().commit();
    struct statvfs st;
    EXPECT_EQ(statvfs(fs().mountPoint().c_str(), &st), 0);
    return (st.f_blocks - st.f_bfree) * st.f_frsize;
  }
};

TEST_F(CloneTrees, ParentInASnapshot) {
  tree().big("p", 200000, 1);
  tree().cloneParent("p");
  takeSnapshot("early");
  tree().cloneOf(fs().path(snapshotName("early")) + "/p", "c");
  tree().pattern("c", 4096, 100, 2);
  takeSnapshot("other");
  takeSnapshot();
  tree().remove("c");
  tree().immutable("p", false);
  tree().remove("p");
  expectRestored();
}

TEST_F(CloneTrees, SnapshotOfTheParentIsGone) {
  tree().big("p", 200000, 1);
  tree().cloneParent("p");
  fs().snapshot(fileset(), fileset() + "-gone");
  tree().cloneOf(fs().path(fileset() + "-gone") + "/p", "c");
  takeSnapshot();
  fs().destroySubvolume(fileset() + "-gone");
  tree().remove("c");
  RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.err.find(root() + "/c"), std::string::npos) << result.describe();
  TreePrint after = testsupport::fingerprint(root());
  EXPECT_FALSE(after.objects.at("c").clone);
  EXPECT_EQ(after.objects.at("c").dataHash, after.objects.at("p").dataHash);
}

TEST_F(CloneTrees, WithoutExtendedAttributes) {
  family(tree());
  takeSnapshot();
  removeAll(tree(), {"p", "d/c"});
  EXPECT_EQ(restore("snap", {"-x"}).exitStatus, 0);
  TreePrint want = testsupport::fingerprint(fs().path(snapshotName()));
  want.objects["p"].xattrs.clear();
  want.objects["d/c"].xattrs.clear();
  EXPECT_EQ(testsupport::joined(testsupport::compare(want, testsupport::fingerprint(root()))), "");
}

// Made in one restore, recognised, found again, and undone in the next.
TEST_F(CloneTrees, RestoredClonesAreRestoredAgain) {
  family(tree());
  takeSnapshot();
  removeAll(tree(), {"p", "d/sub/m"});
  expectRestored();
  removeAll(tree(), {"p", "c"});
  expectRestored();
  takeSnapshot("second");
  tree().pattern("e/mc", 0, 9000, 5);
  removeAll(tree(), {"d/sub/m"});
  expectRestored("second");
  expectRestored();
}

// Until the surviving clones know its number, a parent that was made again must differ from the
// snapshot.
TEST_F(CloneTrees, RunThatDiesBeforeSurvivorsKnowTheNewParent) {
  family(tree());
  takeSnapshot();
  removeAll(tree(), {"p"});
  {
    testsupport::FaultPlan death(testsupport::Fault{.call = "kest_iset_clone_parent",
                                                    .action = testsupport::FaultAction::kKillBefore,
                                                    .where = testsupport::kMaster,
                                                    .nth = 2});
    RunOptions running;
    running.environment = death.environment();
    EXPECT_NE(restore("snap", {}, running).exitStatus, 0);
    EXPECT_EQ(death.struck(), 1u) << death.describe();
  }
  expectRestored();
}

TEST_F(CloneTrees, AThousandOfOneParentTakeItsSpaceOnce) {
  constexpr int kClones = 1000;
  constexpr uint64_t kSize = 64 << 20;
  tree().big("p", kSize, 1);
  tree().cloneParent("p");
  for (int i = 0; i < kClones; ++i) tree().clone("p", "c" + std::to_string(i));
  const uint64_t before = used();
  takeSnapshot();
  tree().immutable("p", false);
  tree().remove("p");
  for (int i = 0; i < kClones; ++i) tree().remove("c" + std::to_string(i));
  RunResult result = restore();
  ASSERT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_LT(used(), before + kSize);
  EXPECT_LT(result.seconds, 60);
  for (const char *name : {"c0", "c999"}) {
    EXPECT_TRUE(tree().read(name) == testsupport::patternBytes(1, 0, kSize)) << name;
    char clone[16] = {};
    lgetxattr((root() + "/" + name).c_str(), "trusted.kest.CLONE", clone, sizeof clone);
    const auto print = testsupport::readClone(std::string(clone, sizeof clone), "");
    EXPECT_EQ(print->parentInode, tree().inode("p"));
  }
}

}  // namespace
