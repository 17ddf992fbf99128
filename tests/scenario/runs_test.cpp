// Runs in a row, several snapshots, and the ways a fileset and its snapshots can lie and be mounted.
#include <sys/mount.h>

#include <filesystem>
#include <map>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"

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

class Runs : public RestoreFixture {};

TEST_F(Runs, NothingToDo) {
  build(tree());
  takeSnapshot();
  auto before = testsupport::inodes(fingerprint(root()));
  expectRestored();
  EXPECT_EQ(testsupport::inodes(fingerprint(root())), before);
}

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
  expectRestored();  // which touches nothing that the first one put right
  wreck(tree());
  expectRestored();
}

// A worker for a hundred changed files, and none where nothing is listed.
TEST_F(Runs, NoMoreWorkersThanTheChangeNeeds) {
  for (int i = 0; i < 5; ++i) tree().dirs("d" + std::to_string(i));
  for (int i = 0; i < 250; ++i)
    tree().file("d" + std::to_string(i % 5) + "/f" + std::to_string(i), "text");
  takeSnapshot();
  for (int i = 0; i < 250; ++i)
    tree().chmod("d" + std::to_string(i % 5) + "/f" + std::to_string(i), 0600);
  testsupport::Fault none;
  none.times = 1;
  none.nth = UINT64_MAX;
  testsupport::FaultPlan counter(none);
  RunOptions running;
  running.environment = counter.environment();
  restore("snap", {}, running);
  std::map<int, uint32_t> workers;  // by phase; each opens two handles
  for (const auto &[call, times] : counter.made())
    if (call.first == "kest_get_fset_snaphandle_by_name") workers[call.second] = times / 2;
  EXPECT_LE(workers[3], 3u);
  // The master, four queries with their shells, the engine with its shell and its question, the
  // workers, and the removal with its shell.
  EXPECT_LE((counter.made()[{testsupport::kProgramStart, 0}]), 1 + 4 * 2 + 3 + workers[3] + 2);
  EXPECT_GT((counter.made()[{testsupport::kProgramStart, 0}]), workers[3]);
  workers.erase(3);
  EXPECT_EQ(workers, (std::map<int, uint32_t>{{0, 1}})) << "master alone";
}

TEST_F(Runs, OlderThenNewerSnapshot) {
  build(tree());
  takeSnapshot("old");
  wreck(tree());
  tree().dirs("only/in/new");
  takeSnapshot("new");
  tree().removeTree("d");
  tree().file("d", "a file");
  expectRestored("old");
  expectRestored("new");
  expectRestored("old");
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

TEST_F(Runs, NestedSubvolumeThatStoodThereIsLeftAlone) {
  build(tree());
  fs().createSubvolume(fileset() + "/d/nested");
  takeSnapshot();
  TreeBuilder nested(root() + "/d/nested");
  nested.file("inside", "not part of the fileset");
  wreck(tree());
  RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))), "");
  EXPECT_EQ(nested.read("inside"), "not part of the fileset");
  fs().destroySubvolume(fileset() + "/d/nested");
}

// One file system a layout, the work of fixtures done by hand.
class Layout : public ::testing::Test {
 protected:
  LoopBtrfs fs_{"layout"};

  void expectEqualAfter(const RunResult &result, const testsupport::TreePrint &want,
                        const std::string &root) {
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(joined(compare(want, fingerprint(root, {{}, true}))), "") << result.describe();
  }
  // Builds, takes the snapshot, wrecks; the tree that a restore must give back.
  testsupport::TreePrint prepare(const std::string &fileset, const std::string &snapshot) {
    TreeBuilder tree(fs_.path(fileset));
    build(tree);
    fs_.snapshot(fileset, snapshot);
    wreck(tree);
    return fingerprint(fs_.path(snapshot), {{}, true});
  }
};

TEST_F(Layout, TopLevelSubvolume) {
  fs_.createSubvolume("other");
  TreeBuilder(fs_.path("other")).file("kept", "of another fileset");
  testsupport::TreePrint want = prepare("/", "snap");
  expectEqualAfter(runRestore(fs_.mountPoint(), "/", "snap", {"-m", "4"}), want, fs_.mountPoint());
  EXPECT_EQ(TreeBuilder(fs_.path("other")).read("kept"), "of another fileset");
  EXPECT_EQ(joined(compare(want, fingerprint(fs_.path("snap"), {{}, true}))), "");
}

// As on a machine whose home is "@home" and whose snapshots are mounted elsewhere.
TEST_F(Layout, MountedByThemselves) {
  fs_.createSubvolume("@home");
  testsupport::TreePrint want = prepare("@home", "@snapshots/monday");
  fs_.remount("", "@home");
  std::string elsewhere = "/mnt/snapshots";
  std::filesystem::create_directories(elsewhere);
  // The second mount of one image takes the same loop device.
  testsupport::runCommand("mount -t btrfs -o subvol=@snapshots/monday \"$(findmnt -no SOURCE " +
                          fs_.mountPoint() + " | sed 's/\\[.*//')\" " + elsewhere);
  want = fingerprint(elsewhere, {{}, true});
  expectEqualAfter(runRestore(fs_.mountPoint(), "@home", "monday", {"-m", "4"}), want,
                   fs_.mountPoint());
  umount(elsewhere.c_str());
}

TEST_F(Layout, SnapshotThatNoMountShowsIsRefused) {
  fs_.createSubvolume("@home");
  prepare("@home", "@snapshots/monday");
  fs_.remount("", "@home");
  auto before = fingerprint(fs_.mountPoint());
  RunResult result = runRestore(fs_.mountPoint(), "@home", "monday", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find("mount"), std::string::npos) << "no word of what to mount\n" << result.err;
  EXPECT_EQ(joined(compare(before, fingerprint(fs_.mountPoint()))), "");
}

TEST_F(Layout, DeviceByItsBlockDevice) {
  fs_.createSubvolume("set");
  testsupport::TreePrint want = prepare("set", "snap");
  testsupport::runCommand("findmnt -no SOURCE " + fs_.mountPoint() + " > /mnt/source");
  std::string device = TreeBuilder("/mnt").read("source");
  device.erase(device.find_last_not_of('\n') + 1);
  expectEqualAfter(runRestore(device, "set", "snap", {"-m", "4"}), want, fs_.path("set"));
}

TEST_F(Layout, FilesetBelowFoldersAndSnapshotsInNumberedFolders) {
  fs_.createSubvolume("data/projects");
  prepare("data/projects", "data/projects/.snapshots/17/snapshot");
  fs_.snapshot("data/projects", "data/projects/.snapshots/18/snapshot");
  testsupport::FingerprintOptions noSnapshots{{".snapshots"}, true};
  auto want = fingerprint(fs_.path("data/projects/.snapshots/17/snapshot"), noSnapshots);
  RunResult result = runRestore(fs_.mountPoint(), "data/projects",
                                "data/projects/.snapshots/17/snapshot", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  auto have = fingerprint(fs_.path("data/projects"), noSnapshots);
  EXPECT_EQ(joined(compare(want, have)), "");
  EXPECT_TRUE(std::filesystem::exists(fs_.path("data/projects/.snapshots/18/snapshot/d/e/new")));
}

TEST_F(Layout, AmbiguousSnapshotNameIsRefused) {
  fs_.createSubvolume("set");
  prepare("set", "one/snapshot");
  fs_.snapshot("set", "two/snapshot");
  RunResult result = runRestore(fs_.mountPoint(), "set", "snapshot", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
}

TEST_F(Layout, NamesWithBlanksAndQuotes) {
  for (const char *name :
       {"with blank", "quo'te", "dou\"ble", "semi;touch owned-by-name", "$(touch owned-by-name)"}) {
    SCOPED_TRACE(name);
    std::string fileset = name;
    fs_.createSubvolume(fileset);
    testsupport::TreePrint want = prepare(fileset, "snap of " + fileset);
    expectEqualAfter(runRestore(fs_.mountPoint(), fileset, "snap of " + fileset, {"-m", "4"}), want,
                     fs_.path(fileset));
  }
  EXPECT_FALSE(std::filesystem::remove("/owned-by-name")) << "a name was run as a command";
}

TEST_F(Layout, MountPointWithABlank) {
  LoopBtrfs other("a blank", LoopBtrfs::kDefaultBytes, "", "/mnt");
  other.createSubvolume("set");
  TreeBuilder tree(other.path("set"));
  build(tree);
  other.snapshot("set", "snap");
  wreck(tree);
  expectEqualAfter(runRestore(other.mountPoint(), "set", "snap", {"-m", "4"}),
                   fingerprint(other.path("snap")), other.path("set"));
}

}  // namespace
