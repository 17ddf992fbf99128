// The cost of a restore must depend on what changed, not on the size of the tree. Counts calls, not
// seconds.
#include <map>
#include <string>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

namespace {

using scenario::RestoreFixture;
using scenario::TreeBuilder;
using Counts = std::map<std::pair<std::string, int>, uint32_t>;

constexpr int kMaster = testsupport::kMaster;

class Cost : public RestoreFixture {
 protected:
  // Restores a tree with 500 changed files and `more` unchanged ones, and counts the calls.
  Counts countsWith(int more, void (*change)(TreeBuilder &)) {
    TearDown();
    SetUp();
    for (int dir = 0; dir < 10; ++dir) {
      tree().dirs(name("busy", dir) + "/below");
      for (int file = 0; file < 50; ++file) tree().file(name("busy", dir) + name("/f", file), "text");
    }
    tree().file("linked");
    tree().link("linked", "busy0/linked");
    tree().dirs("wide");
    tree().file("wide/changed", "text");
    for (int i = 0; i < more; ++i) {
      if (i % 100 == 0) tree().dirs("quiet/" + name("d", i / 100) + "/below");
      tree().file(i % 2 == 0 ? "wide/" + name("f", i) : "quiet/" + name("d", i / 100) + name("/f", i));
      if (i % 50 == 0) tree().link("wide/" + name("f", i), "quiet/" + name("l", i));
    }
    takeSnapshot();
    change(tree());
    return countsOfRestore();
  }

  Counts countsOfRestore() {
    testsupport::FaultPlan plan(testsupport::Fault{.call = "none"});
    testsupport::RunOptions options;
    options.environment = plan.environment();
    expectRestored("snap", {}, options);
    return plan.made();
  }

  static std::string name(const char *stem, int number) { return stem + std::to_string(number); }

  static bool ofWorkers(const Counts::value_type &one) { return one.first.second != kMaster; }
  static void expectSame(Counts small, Counts large) {
    // In a larger tree, blocks end at other places, which causes a few searches more or less.
    const auto searches = std::make_pair(std::string(testsupport::kTreeSearch), kMaster);
    EXPECT_LE(large[searches], small[searches] + small[searches] / 4 + 20);
    small.erase(searches);
    large.erase(searches);
    std::erase_if(small, ofWorkers);
    std::erase_if(large, ofWorkers);
    EXPECT_EQ(small, large);
  }
};

TEST_F(Cost, SameChangesAmongFiveHundredAndSixThousandFiles) {
  const auto change = [](TreeBuilder &t) {
    for (int dir = 0; dir < 10; ++dir) {
      const std::string busy = name("busy", dir);
      t.append(busy + "/f1", "changed");
      t.rename(busy + "/f2", busy + "/below/f2");
      t.remove(busy + "/f3");
      t.file(busy + "/new");
      t.chmod(busy + "/below", 0700);
    }
    t.append("wide/changed", "changed");
    t.append("linked", "changed");
  };
  Counts small = countsWith(0, change);
  expectSame(small, countsWith(6000, change));
  // In one pass, inodes that the difference knows are not queried again.
  EXPECT_LE((small[{"kest_iopen64", kMaster}]), 90u);
}

TEST_F(Cost, NothingToDo) {
  const auto change = [](TreeBuilder &t) { t.file("new"); };
  expectSame(countsWith(0, change), countsWith(6000, change));
}

// Neighbouring inodes are read together, even if one has more items than the first search returns.
TEST_F(Cost, OfNeighboursWithManyItems) {
  constexpr uint32_t kFiles = 2000;
  for (int i = 0; i < int{kFiles}; ++i) {
    const std::string dir = name("d", i / 100), file = dir + name("/f", i);
    if (i % 100 == 0) tree().dirs(dir);
    tree().file(file, "text");
    for (const char *attribute : {"user.x", "user.y", "user.z"}) tree().setXattr(file, attribute, "v");
  }
  takeSnapshot();
  for (int i = 0; i < int{kFiles}; ++i) tree().chmod(name("d", i / 100) + name("/f", i), 0600);
  constexpr int kMain = 3;
  Counts made = countsOfRestore();
  EXPECT_LE((made[{testsupport::kTreeSearch, kMaster}]), kFiles / 4);
  EXPECT_LE((made[{testsupport::kTreeSearch, kMain}]), kFiles / 2);
  EXPECT_LE((made[{testsupport::kProgramStart, 0}]), 34u) << "shells, engines and workers";
}

// Twenty records of each kind: nothing is read, and each object is opened once in each tree.
TEST_F(Cost, OfARecord) {
  constexpr uint32_t kFiles = 20;
  constexpr int kMain = 3, kCreate = 51;
  for (int i = 0; i < int{kFiles}; ++i)
    for (const char *kind : {"changed", "attributes", "deleted"}) tree().big(name(kind, i), 30001, 1);
  takeSnapshot();
  for (int i = 0; i < int{kFiles}; ++i) {
    tree().write(name("changed", i), 20000, "x");
    tree().chmod(name("attributes", i), 0600);
    tree().remove(name("deleted", i));
  }
  Counts made = countsOfRestore();
  const auto calls = [&](const std::string &call, int phase) { return made[{"kest_" + call, phase}]; };
  for (const char *copying : {"iread", "ireadx", "iwritex", "truncate"})
    EXPECT_EQ(calls(copying, kMain) + calls(copying, kCreate), 0u) << copying;
  EXPECT_EQ(calls("ishare", kMain), kFiles);
  EXPECT_EQ(calls("ishare", kCreate), kFiles);
  struct Limit {
    const char *call;
    uint32_t most;  // for one record
  };
  for (const Limit &limit : {Limit{"iopen64", 1},
                             {"ifacts", 2},
                             {"istat", 0},
                             {"igetattrsx", 0},
                             {"iclone_attr", 1},
                             {"ichmod", 1},
                             {"iset_times", 1},
                             {"open_path", 0},
                             {"fcntl", 0}}) {
    EXPECT_LE(calls(limit.call, kMain), limit.most * 2 * kFiles) << limit.call;
    EXPECT_LE(calls(limit.call, kCreate), limit.most * kFiles) << limit.call;
  }
  constexpr uint32_t kOnce = 2;  // for a batch
  EXPECT_LE(calls("lstat", kMain), 2 * 2 * kFiles + kOnce);
  EXPECT_LE(calls("lstat", kCreate), kFiles + kOnce);
}

}  // namespace
