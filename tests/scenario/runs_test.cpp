// Several runs in a row, several snapshots, and the ways in which a fileset and its snapshots can be
// placed and mounted.
#include <sys/mount.h>

#include <filesystem>
#include <map>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"
#include "support/survival.h"

using namespace scenario;
using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::LoopBtrfs;
using testsupport::runRestore;

namespace {

void build(TreeBuilder &t) {
  t.dirs("d/e");
  t.big("f", 100000, 1);
  t.file("d/g", "text");
  t.symlink("f", "l");
}

void wreck(TreeBuilder &t) {
  t.write("f", 5000, "changed");
  t.remove("d/g");
  t.chmod("d", 0700);
  t.file("d/e/new", "new");
}

using Runs = RestoreFixture;

TEST_F(Runs, EmptyFileset) {
  takeSnapshot();
  expectRestored();
  build(tree());
  expectRestored();
}

TEST_F(Runs, TwoInARow) {
  build(tree());
  takeSnapshot();
  wreck(tree());
  expectRestored();
  expectRestored();  // must not touch what the first one restored
  wreck(tree());
  takeSnapshot("newer");
  tree().removeTree("d");
  tree().file("d", "a file");
  expectRestored();
  expectRestored("newer");
  expectRestored();
}

// Objects that a restore made again count as the snapshot's: the next restore leaves them alone and
// makes only what changed since.
TEST_F(Runs, NothingIsMadeAgainTwice) {
  constexpr int kFiles = 300;
  const auto file = [](int i) { return "old/d" + std::to_string(i % 6) + "/f" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) {
    if (i < 6) tree().dirs("old/d" + std::to_string(i) + "/below");
    tree().file(file(i), "text");
  }
  for (int i = 0; i < kFiles; ++i) tree().link(file(i), "old/d0/l" + std::to_string(i));
  tree().dirs("clones");
  tree().big("parent", 100000, 1);
  tree().cloneParent("parent");
  for (const char *clone : {"clones/a", "clones/b", "survivor"}) tree().clone("parent", clone);
  tree().big("nocow", 0, 1);
  tree().noCow("nocow");
  tree().pattern("nocow", 0, 50000, 2);
  tree().immutable("old/d1");
  takeSnapshot();
  tree().immutable("old/d1", false);
  tree().immutable("parent", false);
  for (const char *gone : {"old", "clones", "parent"}) tree().removeTree(gone);
  tree().pattern("nocow", 4096, 9000, 3);
  expectRestored();

  testsupport::FaultPlan counter(testsupport::Fault{.call = "none"});
  RunOptions counted;
  counted.environment = counter.environment();
  // A mount is no obstacle if nothing has to be done below it.
  ASSERT_EQ(mount("none", (root() + "/old/d2/below").c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_EQ(restore("snap", {}, counted).exitStatus, 0);
  EXPECT_EQ(umount((root() + "/old/d2/below").c_str()), 0);
  for (const auto &[call, times] : counter.made())
    EXPECT_EQ(call.second, testsupport::kMaster) << call.first << ": nothing is left for a worker";
  EXPECT_LE((counter.made()[{testsupport::kTreeSearch, testsupport::kMaster}]), uint32_t{kFiles * 2});

  const testsupport::TreePrint before = fingerprint(root());
  tree().remove("clones/b");
  tree().file("clones/new");
  tree().setXattr("clones/a", "user.x", "y");
  expectRestored();
  testsupport::TreePrint after = fingerprint(root());
  for (const char *changed : {"clones", "clones/a", "clones/b"}) after.objects.erase(changed);
  EXPECT_EQ(joined(testsupport::exchangedOrChanged(before, after)), "");
}

// A file that survived has names in a directory that was made again, in one that survived below that,
// and elsewhere.
TEST_F(Runs, ASurvivorWithNamesInWhatWasMadeAgainIsLeftAlone) {
  for (const char *dir : {"gone/kept/sub", "stays"}) tree().dirs(dir);
  tree().file("stays/f", "text");
  for (const char *name : {"gone/g", "gone/kept/k", "stays/h"}) tree().link("stays/f", name);
  tree().file("gone/kept/sub/twin", "other");
  takeSnapshot();
  tree().rename("gone/kept", "kept");
  tree().remove("kept/sub/twin");
  tree().removeTree("gone");
  expectRestored();
  const testsupport::TreePrint before = fingerprint(root());
  const RunResult again = restore();
  EXPECT_NE(again.err.find("] 1 operations have been added"), std::string::npos) << again.describe();
  EXPECT_EQ(joined(testsupport::exchangedOrChanged(before, fingerprint(root()))), "");
  // The same directory, but one name stands elsewhere now.
  tree().rename("stays/h", "stays/i");
  expectRestored();
}

// One worker for a hundred changed files, and none for an empty list.
TEST_F(Runs, NoMoreWorkersThanTheChangeNeeds) {
  for (int i = 0; i < 5; ++i) tree().dirs("d" + std::to_string(i));
  for (int i = 0; i < 250; ++i)
    tree().file("d" + std::to_string(i % 5) + "/f" + std::to_string(i), "text");
  takeSnapshot();
  for (int i = 0; i < 250; ++i)
    tree().chmod("d" + std::to_string(i % 5) + "/f" + std::to_string(i), 0600);
  testsupport::FaultPlan counter(testsupport::Fault{.call = "none"});
  RunOptions running;
  running.environment = counter.environment();
  restore("snap", {}, running);
  std::map<int, uint32_t> workers;  // by phase; each worker opens two handles
  for (const auto &[call, times] : counter.made())
    if (call.first == "kest_get_fset_snaphandle_by_name") workers[call.second] = times / 2;
  EXPECT_LE(workers[3], 3u);
  // The master; four queries with their shells; the engine with its shell and its probe; the workers;
  // the removal with its shell.
  EXPECT_LE((counter.made()[{testsupport::kProgramStart, 0}]), 1 + 4 * 2 + 3 + workers[3] + 2);
  EXPECT_GT((counter.made()[{testsupport::kProgramStart, 0}]), workers[3]);
  workers.erase(3);
  EXPECT_EQ(workers, (std::map<int, uint32_t>{{0, 1}})) << "master alone";
}

TEST_F(Runs, WritableSnapshot) {
  build(tree());
  fs().snapshot(fileset(), "writable", false);
  auto want = fingerprint(fs().path("writable"));
  wreck(tree());
  RunResult result = runRestore(fs().mountPoint(), fileset(), "writable", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(want, fingerprint(root()))), "");
  fs().destroySubvolume("writable");
}

TEST_F(Runs, AfterTheFileSystemWasMountedAnew) {
  build(tree());
  takeSnapshot();
  tree().remove("f");
  tree().removeTree("d");
  remount();
  tree().file("f", "the same number, another file");
  tree().dir("d");
  expectRestored();
}

// Like a machine whose home is "@home" and whose snapshots are mounted elsewhere.
TEST(Layout, MountedByThemselves) {
  LoopBtrfs fs("layout");
  TreeBuilder tree(fs.createSubvolume("@home"));
  build(tree);
  fs.snapshot("@home", "@snapshots/monday");
  wreck(tree);
  tree = TreeBuilder("/");
  fs.remount("", "@home");
  std::string elsewhere = "/mnt/snapshots";
  std::filesystem::create_directories(elsewhere);
  // The second mount of one image uses the same loop device.
  testsupport::runCommand("mount -t btrfs -o subvol=@snapshots/monday \"$(findmnt -no SOURCE " +
                          fs.mountPoint() + " | sed 's/\\[.*//')\" " + elsewhere);
  RunResult result = runRestore(fs.mountPoint(), "@home", "monday", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(elsewhere), fingerprint(fs.mountPoint()))), "");
  umount(elsewhere.c_str());
}

TEST(Layout, HostileNamesOfMountsFilesetsAndSnapshots) {
  LoopBtrfs fs("a blank");
  for (const std::string name : {"with blank", "quo'te", "dou\"ble", "semi;touch owned-by-name",
                                 "$(touch owned-by-name)", "-x"}) {
    SCOPED_TRACE(name);
    const std::string snapshot = name == "-x" ? "-q" : "snap of " + name;
    TreeBuilder tree(fs.createSubvolume(name));
    build(tree);
    fs.snapshot(name, snapshot);
    wreck(tree);
    RunResult result = runRestore(fs.mountPoint(), name, snapshot, {"-m", "4"});
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(joined(compare(fingerprint(fs.path(snapshot)), fingerprint(tree.root()))), "");
  }
  EXPECT_FALSE(std::filesystem::remove("/owned-by-name")) << "a name was run as a command";
}

}  // namespace
