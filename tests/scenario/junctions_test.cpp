// Nested subvolumes. One that the snapshot does not know moves to .unlinked with all its data, one that
// it has elsewhere moves home, and one at its place is left alone. No data is ever lost.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <filesystem>
#include <map>

#include "scenario/restore_fixture.h"
#include "support/descriptor.h"
#include "support/fault_plan.h"

using namespace scenario;
using testsupport::compare;
using testsupport::Descriptor;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::LoopBtrfs;
using testsupport::runRestore;

namespace {

const testsupport::FingerprintOptions kWithoutNested{{}, true};
constexpr ino_t kSubvolumeRoot = 256;

Descriptor openDirectory(const std::string &path) {
  Descriptor fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) testsupport::failWithErrno("open " + path);
  return fd;
}

uint64_t subvolumeId(const std::string &path) {
  Descriptor fd = openDirectory(path);
  btrfs_ioctl_ino_lookup_args args{};
  args.objectid = kSubvolumeRoot;
  if (ioctl(fd.get(), BTRFS_IOC_INO_LOOKUP, &args) < 0) testsupport::failWithErrno("id of " + path);
  return args.treeid;
}

void makeReadOnly(const std::string &path) {
  Descriptor fd = openDirectory(path);
  uint64_t flags = BTRFS_SUBVOL_RDONLY;
  if (ioctl(fd.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) < 0)
    testsupport::failWithErrno("flags of " + path);
}

void fill(const std::string &subvolume) {
  TreeBuilder t(subvolume);
  t.dirs("deep");
  t.big("deep/data", 300000, 7);
  t.file("small", "text");
  t.link("small", "deep/second");
}

// A nested subvolume before the restore.
struct Nested {
  std::string path;  // path below the fileset
  uint64_t id = 0;
  TreePrint contents;
  std::string kept() const {
    return ".unlinked/" + std::to_string(id) + "-" + std::filesystem::path(path).filename().string();
  }
};

class Junctions : public RestoreFixture {
 protected:
  void TearDown() override {
    for (const std::string &top : {fileset(), std::string(".unlinked")}) destroyNested(fs().path(top));
    RestoreFixture::TearDown();
  }

  // Makes one with some contents.
  void make(const std::string &path, bool readOnly = false) {
    fill(fs().createSubvolume(fileset() + "/" + path));
    if (readOnly) makeReadOnly(root() + "/" + path);
  }
  Nested remember(const std::string &path) {
    std::string whole = root() + "/" + path;
    return {path, subvolumeId(whole), fingerprint(whole)};
  }

  RunResult expectEqual() {
    const std::string snapshotPath = fs().path(snapshotName());
    TreePrint want = fingerprint(snapshotPath, kWithoutNested);
    RunResult result = restore();
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(result.processesLeft, 0);
    EXPECT_EQ(joined(compare(want, fingerprint(root(), kWithoutNested))), "") << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(snapshotPath, kWithoutNested))), "");
    return result;
  }

  static void expectAt(const std::string &now, const Nested &nested, const RunResult &result) {
    SCOPED_TRACE(nested.path);
    ASSERT_TRUE(std::filesystem::exists(now)) << result.describe();
    EXPECT_EQ(subvolumeId(now), nested.id);
    EXPECT_EQ(joined(compare(nested.contents, fingerprint(now))), "");
  }
  static void expectUnlinked(const Nested &nested, const RunResult &result) {
    expectAt(fs().path(nested.kept()), nested, result);
    EXPECT_NE(result.err.find(nested.kept()), std::string::npos) << "not told where\n" << result.err;
  }
  void expectUntouched(const Nested &nested, const RunResult &result) {
    expectAt(root() + "/" + nested.path, nested, result);
  }

 private:
  // Destroys them deepest first, also read-only ones.
  static void destroyNested(const std::string &top) {
    namespace stdfs = std::filesystem;
    std::vector<std::string> found;
    std::error_code none;
    for (const auto &entry : stdfs::recursive_directory_iterator(top, none)) {
      struct stat st;
      if (lstat(entry.path().c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_ino == kSubvolumeRoot)
        found.push_back(entry.path());
    }
    for (auto one = found.rbegin(); one != found.rend(); ++one)
      fs().destroySubvolume(one->substr(fs().mountPoint().size() + 1));
  }
};

TEST_F(Junctions, MadeSinceGoAsideWithAllTheirData) {
  for (const char *dir : {"stays/sub", "moves/sub", "renamed", "emptied/of"}) tree().dirs(dir);
  tree().file("becomes");
  tree().file("emptied/of/file", "text");
  takeSnapshot();

  make("empty");
  make("stays/sub/full");
  make("stays/readonly", true);
  tree().dirs("new/newer");
  tree().file("new/newer/file", "text");
  make("new/newer/inside");
  tree().rename("moves", "stays/moved");
  make("stays/moved/sub/inMoved");
  make("renamed/before");
  tree().rename("renamed", "other name");
  make("other name/em pty'$(id)");
  tree().remove("becomes");
  make("becomes");
  tree().removeTree("emptied");
  make("emptied");
  make("emptied/nested");  // moves with the subvolume that contains it

  std::vector<Nested> all;
  for (const char *path :
       {"empty", "stays/sub/full", "stays/readonly", "new/newer/inside", "stays/moved/sub/inMoved",
        "other name/before", "other name/em pty'$(id)", "becomes", "emptied"})
    all.push_back(remember(path));
  Nested inner = remember("emptied/nested");

  RunResult result = expectEqual();
  for (const Nested &one : all) expectUnlinked(one, result);
  // Messages name places before the run, not temporary locations.
  for (const char *place : {"/stays/moved/sub/inMoved is", "/other name/before is"})
    EXPECT_NE(result.err.find(root() + place), std::string::npos) << place << "\n" << result.err;
  EXPECT_EQ(result.err.find("RestoreTemp"), std::string::npos) << result.err;
  const std::string within = fs().path(all.back().kept() + "/nested");
  EXPECT_EQ(joined(compare(inner.contents, fingerprint(within))), "");
  EXPECT_EQ(subvolumeId(within), inner.id);
}

TEST_F(Junctions, StoodThereAreLeftAlone) {
  for (const char *dir : {"away/and", "moved", "elsewhere"}) tree().dirs(dir);
  make("away/and/back");
  make("moved/along");
  make("readonly", true);
  takeSnapshot();

  for (const char *path : {"away/and/back", "moved/along"})
    TreeBuilder(root() + "/" + path).write("small", 0, "else");
  tree().rename("away/and", "elsewhere/gone");
  tree().rename("elsewhere/gone", "away/and");
  tree().rename("moved", "elsewhere/still");
  tree().file("away/and/new");
  Nested back = remember("away/and/back"), along = remember("elsewhere/still/along"),
         readonly = remember("readonly");
  along.path = "moved/along";  // its directory moves home, and it moves with it

  RunResult result = expectEqual();
  for (const Nested &one : {back, along, readonly}) expectUntouched(one, result);
  EXPECT_EQ(result.err.find(".unlinked"), std::string::npos) << result.err;
}

TEST_F(Junctions, MovedSinceGoHomeAndDeletedAreSkipped) {
  for (const char *dir : {"a", "b", "d/e", "old/deep"}) tree().dirs(dir);
  for (const char *path : {"a/renamed", "a/moved", "a/parted", "a/one", "b/other", "d/e/gone",
                           "d/e/out", "d/replaced", "d/covered", "gone", "old/deep/along"})
    make(path);
  make("a/readonly", true);
  takeSnapshot();
  tree().rename("a/renamed", "a/otherwise");
  tree().rename("a/moved", "b/moved");
  tree().file("a/moved", "another thing in its place");
  tree().exchange("a/one", "b/other");
  tree().rename("a/readonly", "a/still readonly");
  // A plain directory at its place is a new directory.
  tree().rename("d/covered", "b/covered");
  tree().dir("d/covered");
  tree().file("d/covered/file", "goes");
  // The same name in a directory of the same name, but in another directory.
  tree().rename("a", "formerly");
  tree().dirs("a");
  tree().rename("formerly/parted", "a/parted");
  tree().rename("old", "formerly/new");
  tree().rename("formerly/new/deep/along", "along");
  for (const char *path : {"d/e/gone", "d/replaced", "gone"})
    fs().destroySubvolume(fileset() + "/" + path);
  tree().file("d/replaced", "a file");
  tree().dirs("fresh/dir");
  tree().rename("d/e/out", "fresh/dir/out");
  tree().removeTree("d/e");
  tree().dirs("gone/new");
  tree().immutable("b");
  tree().immutable("formerly/otherwise");

  std::map<std::string, Nested> all;  // key: home
  for (const auto &[now, home] :
       std::map<std::string, std::string>{{"formerly/otherwise", "a/renamed"},
                                          {"b/moved", "a/moved"},
                                          {"a/parted", "a/parted"},
                                          {"formerly/one", "b/other"},
                                          {"b/other", "a/one"},
                                          {"formerly/still readonly", "a/readonly"},
                                          {"b/covered", "d/covered"},
                                          {"along", "old/deep/along"},
                                          {"fresh/dir/out", "d/e/out"}})
    all.emplace(home, remember(now));
  const std::vector<std::string> compare{fs().mountPoint(), "-j", fileset(), "-o", snapshotName()};
  const testsupport::RunOptions comparison{.program = "/usr/qtx/kest/bin/fsetcompare"};
  EXPECT_NE(testsupport::runProgram(compare, comparison).out.find("moved\ta/one\tb/other\n"),
            std::string::npos);
  RunResult result = expectEqual();
  for (auto &[home, nested] : all) {
    nested.path = home;
    expectUntouched(nested, result);
  }
  EXPECT_EQ(result.err.find("nlinked"), std::string::npos) << result.err;
  EXPECT_EQ(testsupport::runProgram(compare, comparison).exitStatus, 0);
}

// The run ends while they wait: killed, or for lack of space, after which the clean-up moves them back.
TEST_F(Junctions, WaitingOnesAreNotLost) {
  using testsupport::FaultAction;
  const testsupport::Fault faults[] = {
      {.call = "kest_move_junction", .action = FaultAction::kKillBefore, .where = 0, .nth = 2},
      {.call = "kest_move_junction", .action = FaultAction::kKillBefore, .where = 0, .nth = 4},
      {.call = "kest_move_junction", .action = FaultAction::kFail, .error = EIO, .where = 0, .nth = 5},
      {.call = "kest_icreate", .action = FaultAction::kFail, .error = ENOSPC, .where = 51}};
  for (const testsupport::Fault &fault : faults) {
    SCOPED_TRACE(fault.words());
    TearDown();
    SetUp();
    for (const char *dir : {"a", "b", "gone"}) tree().dirs(dir);
    for (const char *path : {"a/one", "b/other", "gone/third"}) make(path);
    tree().file("deleted", "text");
    takeSnapshot();
    tree().exchange("a/one", "b/other");
    tree().rename("gone/third", "third");
    tree().remove("gone");
    tree().remove("deleted");
    Nested one = remember("b/other"), other = remember("a/one"), third = remember("third");
    testsupport::FaultPlan plan(fault);
    const RunResult ended = restore("snap", {}, {.environment = plan.environment()});
    EXPECT_NE(ended.exitStatus, 0) << ended.describe();
    EXPECT_NE(plan.struck(), 0u);
    if (fault.error == ENOSPC) expectUntouched({"a/one", one.id, one.contents}, ended);
    RunResult result = expectEqual();
    one.path = "a/one";
    other.path = "b/other";
    third.path = "gone/third";
    for (const Nested *nested : {&one, &other, &third}) expectUntouched(*nested, result);
  }
}

// The directory is gone, and its inode number belongs to another directory of the same name.
TEST_F(Junctions, InADirectoryThatOnlyHasTheNumberGoesHome) {
  tree().dir("d");
  make("d/nested");
  takeSnapshot();
  const ino_t number = tree().inode("d");
  tree().rename("d/nested", "nested");
  tree().remove("d");
  remount();
  tree().dir("d");
  ASSERT_EQ(tree().inode("d"), number) << "the kernel gave no number twice";
  tree().rename("nested", "d/nested");
  Nested nested = remember("d/nested");
  expectUntouched(nested, expectEqual());
}

// Snapshots of the fileset, and of those snapshots, that lie in it.
TEST_F(Junctions, SnapshotsInTheFilesetStay) {
  tree().file("f", "text");
  tree().dirs(".snapshots/1");
  const std::string first = fileset() + "/.snapshots/1/snapshot";
  fs().snapshot(fileset(), first);
  tree().file(".snapshots/1/info", "made after the snapshot");
  tree().write("f", 0, "else");
  tree().dirs("new/deeper");
  tree().dirs("new/beside");
  tree().file("new/deeper/file", "goes");
  const std::string inside = fileset() + "/new/deeper/kept";
  fs().snapshot(fileset(), inside);
  const auto folder = fingerprint(fs().path(fileset() + "/.snapshots")),
             kept = fingerprint(fs().path(inside));

  RunResult result = runRestore(fs().mountPoint(), fileset(), first, {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(fs().path(first), {{".snapshots"}, false}),
                           fingerprint(root(), {{".snapshots", "new"}, false}))),
            "");
  EXPECT_EQ(joined(compare(folder, fingerprint(root() + "/.snapshots"))), "");
  EXPECT_EQ(tree().names("new"), std::vector<std::string>{"deeper"});
  EXPECT_EQ(tree().names("new/deeper"), std::vector<std::string>{"kept"});
  EXPECT_EQ(joined(compare(kept, fingerprint(fs().path(inside)))), "");
  EXPECT_NE(result.err.find("new/deeper stays"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find(".unlinked"), std::string::npos) << result.err;
}

// A .snapshots folder without snapshots is an ordinary directory.
TEST_F(Junctions, FolderWithoutSnapshotsIsRestored) {
  tree().dirs(".snapshots/mine");
  tree().file(".snapshots/mine/file", "text");
  make(".snapshots/nested");
  takeSnapshot();
  tree().append(".snapshots/mine/file", "more");
  tree().file(".snapshots/new");
  const RunResult compared =
      testsupport::runProgram({fs().mountPoint(), "-j", fileset(), "-o", snapshotName()},
                              {.program = "/usr/qtx/kest/bin/fsetcompare"});
  EXPECT_NE(compared.out.find("extra\t.snapshots/new\t"), std::string::npos) << compared.out;
  const Nested nested = remember(".snapshots/nested");
  expectUntouched(nested, expectEqual());
}

// The directory changes in the transaction that makes the snapshot, but not in the snapshot.
TEST_F(Junctions, DirectoryThatTheSnapshotIsPutIntoGetsItsTimes) {
  tree().dir("snaps");
  tree().mtime("snaps", 1000000000);
  const std::string name = fileset() + "/snaps/one";
  fs().snapshot(fileset(), name);
  testsupport::RunOptions comparing;
  comparing.program = "/usr/qtx/kest/bin/fsetcompare";
  const auto compared = [&] {
    return runRestore(fs().mountPoint(), fileset(), name, {}, comparing).out;
  };
  EXPECT_NE(compared().find("mtime\tsnaps\t1000000000.0"), std::string::npos) << compared();
  const RunResult result = runRestore(fs().mountPoint(), fileset(), name, {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(fs().path(name), kWithoutNested),
                           fingerprint(root(), kWithoutNested))),
            "");
  EXPECT_EQ(compared(), "differences\t0\n");
}

TEST_F(Junctions, FailingUnlinkFailsTheRunAndLosesNothing) {
  tree().dirs("d");
  tree().file("d/f", "text");
  takeSnapshot();
  tree().dirs("new");
  make("new/nested");
  make("d/other");
  const Nested nested = remember("new/nested"), other = remember("d/other");
  const char *command = "/usr/qtx/kest/bin/ktunlinkfileset";
  ASSERT_EQ(mount("/bin/false", command, nullptr, MS_BIND, nullptr), 0);
  RunResult failed = restore();
  ASSERT_EQ(umount(command), 0);
  EXPECT_EQ(failed.exitStatus, 1) << failed.describe();
  EXPECT_EQ(failed.processesLeft, 0);
  EXPECT_NE(failed.err.find("Failed to unlink the nested fileset at"), std::string::npos) << failed.err;
  expectUntouched(nested, failed);
  expectUntouched(other, failed);
  // A user's file has the name of the folder.
  std::filesystem::remove(fs().path(".unlinked"));
  TreeBuilder(fs().mountPoint()).file(".unlinked", "a user's");
  failed = restore();
  EXPECT_EQ(failed.exitStatus, 1) << failed.describe();
  EXPECT_NE(failed.err.find(".unlinked at the top of the file system: Not a directory"),
            std::string::npos)
      << failed.err;
  TreeBuilder(fs().mountPoint()).remove(".unlinked");
  RunResult result = expectEqual();
  expectUnlinked(nested, result);
  expectUnlinked(other, result);
}

TEST(TopLevel, FilesetWithOtherSubvolumesInIt) {
  LoopBtrfs fs("top");
  TreeBuilder tree(fs.mountPoint());
  tree.dirs("d");
  tree.file("d/f", "text");
  fill(fs.createSubvolume("d/stood"));
  fs.snapshot("/", "snaps/one");
  fill(fs.createSubvolume("d/made"));
  tree.dirs(".unlinked/earlier");
  tree.write("d/f", 0, "else");
  fs.snapshot("/", "two");
  auto stood = fingerprint(fs.path("d/stood")), made = fingerprint(fs.path("d/made")),
       two = fingerprint(fs.path("two"));
  const std::string kept = ".unlinked/" + std::to_string(subvolumeId(fs.path("d/made"))) + "-made";

  const testsupport::FingerprintOptions without{{"snaps", ".unlinked"}, true};
  RunResult result = runRestore(fs.mountPoint(), "/", "one", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(fs.path("snaps/one"), without),
                           fingerprint(fs.mountPoint(), without))),
            "")
      << result.describe();
  EXPECT_EQ(joined(compare(stood, fingerprint(fs.path("d/stood")))), "");
  EXPECT_EQ(joined(compare(two, fingerprint(fs.path("two")))), "");
  EXPECT_EQ(joined(compare(made, fingerprint(fs.path(kept)))), "") << result.describe();
  EXPECT_TRUE(tree.exists(".unlinked/earlier"));
}

}  // namespace
