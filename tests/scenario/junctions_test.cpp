// Nested subvolumes: what the snapshot does not know goes to .unlinked with all its data, what stood
// where it stands is left alone, and nothing of either is ever lost.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <filesystem>

#include "scenario/restore_fixture.h"
#include "support/descriptor.h"

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
  t.dirs("deep/er");
  t.big("deep/er/data", 300000, 7);
  t.file("small", "text");
  t.link("small", "deep/second");
  t.setXattr("small", "user.note", "kept");
  t.symlink("small", "link");
  t.chown("deep", 1000, 1001);
}

// A nested subvolume as it was before the restore.
struct Nested {
  std::string path;  // below the fileset
  uint64_t id = 0;
  TreePrint contents;
  std::string kept() const {
    return ".unlinked/" + std::to_string(id) + "-" + std::filesystem::path(path).filename().string();
  }
};

class Junctions : public RestoreFixture {
 protected:
  void TearDown() override {
    umount2("/usr/qtx/kest/bin/ktunlinkfileset", MNT_DETACH);
    for (const std::string &top : {fileset(), std::string(".unlinked")}) destroyNested(fs().path(top));
    RestoreFixture::TearDown();
  }

  void make(const std::string &path) { fs().createSubvolume(fileset() + "/" + path); }
  Nested remember(const std::string &path) {
    std::string whole = root() + "/" + path;
    return {path, subvolumeId(whole), fingerprint(whole)};
  }

  RunResult expectEqual(int exitStatus = 0) {
    const std::string snapshotPath = fs().path(snapshotName());
    TreePrint want = fingerprint(snapshotPath, kWithoutNested);
    RunResult result = restore();
    EXPECT_EQ(result.exitStatus, exitStatus) << result.describe();
    EXPECT_EQ(result.processesLeft, 0);
    EXPECT_EQ(joined(compare(want, fingerprint(root(), kWithoutNested))), "") << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(snapshotPath, kWithoutNested))), "");
    return result;
  }

  static void expectUnlinked(const Nested &nested, const RunResult &result) {
    SCOPED_TRACE(nested.path);
    const std::string now = fs().path(nested.kept());
    ASSERT_TRUE(std::filesystem::exists(now)) << result.describe();
    EXPECT_EQ(subvolumeId(now), nested.id);
    EXPECT_EQ(joined(compare(nested.contents, fingerprint(now))), "");
    EXPECT_NE(result.err.find(nested.kept()), std::string::npos) << "not told where\n" << result.err;
  }

  void expectUntouched(const Nested &nested, const RunResult &result) {
    SCOPED_TRACE(nested.path);
    const std::string now = root() + "/" + nested.path;
    ASSERT_TRUE(std::filesystem::exists(now)) << result.describe();
    EXPECT_EQ(subvolumeId(now), nested.id);
    EXPECT_EQ(joined(compare(nested.contents, fingerprint(now))), "");
  }

 private:
  // Deepest first; read-only ones as well.
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
  tree().dirs("stays/sub");
  tree().dirs("moves/sub");
  tree().dirs("renamed");
  tree().file("becomes");
  tree().dirs("emptied/of");
  tree().file("emptied/of/file", "text");
  takeSnapshot();

  make("empty");
  make("stays/sub/full");
  fill(root() + "/stays/sub/full");
  make("stays/readonly");
  fill(root() + "/stays/readonly");
  makeReadOnly(root() + "/stays/readonly");
  tree().dirs("new/newer");
  tree().file("new/newer/file", "text");
  make("new/newer/inside");
  fill(root() + "/new/newer/inside");
  tree().rename("moves", "stays/moved");
  make("stays/moved/sub/inMoved");
  fill(root() + "/stays/moved/sub/inMoved");
  make("renamed/before");
  tree().rename("renamed", "other name");
  make("other name/em pty'$(id)");
  tree().remove("becomes");
  make("becomes");
  fill(root() + "/becomes");
  tree().removeTree("emptied");
  make("emptied");
  make("emptied/nested");  // goes along with the one that it stands in
  fill(root() + "/emptied/nested");

  std::vector<Nested> all;
  for (const char *path :
       {"empty", "stays/sub/full", "stays/readonly", "new/newer/inside", "stays/moved/sub/inMoved",
        "other name/before", "other name/em pty'$(id)", "becomes", "emptied"})
    all.push_back(remember(path));
  Nested inner = remember("emptied/nested");

  RunResult result = expectEqual();
  for (const Nested &one : all) expectUnlinked(one, result);
  const std::string within = fs().path(all.back().kept() + "/nested");
  EXPECT_EQ(joined(compare(inner.contents, fingerprint(within))), "");
  EXPECT_EQ(subvolumeId(within), inner.id);
}

TEST_F(Junctions, StoodThereAreLeftAlone) {
  for (const char *dir : {"away/and", "moved", "replaced"}) tree().dirs(dir);
  make("away/and/back");
  make("moved/along");
  make("readonly");
  tree().dirs("elsewhere");
  fill(root() + "/readonly");
  makeReadOnly(root() + "/readonly");
  takeSnapshot();

  fill(root() + "/away/and/back");
  fill(root() + "/moved/along");
  tree().rename("away/and", "elsewhere/gone");
  tree().rename("elsewhere/gone", "away/and");
  tree().rename("moved", "elsewhere/still");
  tree().file("away/and/new");
  Nested back = remember("away/and/back"), along = remember("elsewhere/still/along"),
         readonly = remember("readonly");
  along.path = "moved/along";  // its directory comes home, and it with it

  RunResult result = expectEqual();
  for (const Nested &one : {back, along, readonly}) expectUntouched(one, result);
  EXPECT_EQ(result.err.find(".unlinked"), std::string::npos) << result.err;
}

TEST_F(Junctions, MovedSinceGoAside) {
  tree().dirs("a");
  tree().dirs("b");
  for (const char *path : {"a/renamed", "a/moved", "a/parted", "emptyOne"}) make(path);
  takeSnapshot();
  fill(root() + "/a/renamed");
  tree().rename("a/renamed", "a/otherwise");
  tree().rename("a/moved", "b/moved");
  tree().file("a/moved", "another thing in its place");
  // The same name in a directory of the same name, which is another directory.
  tree().rename("a", "formerly");
  tree().dirs("a");
  tree().rename("formerly/parted", "a/parted");
  tree().rename("emptyOne", "b/stillEmpty");

  std::vector<Nested> all;
  for (const char *path : {"formerly/otherwise", "b/moved", "a/parted", "b/stillEmpty"})
    all.push_back(remember(path));
  RunResult result = expectEqual();
  for (const Nested &one : all) expectUnlinked(one, result);
}

// The directory is gone, and its inode number is given again to one of the same name.
TEST_F(Junctions, InADirectoryThatOnlyHasTheNumberGoesAside) {
  tree().dir("d");
  make("d/nested");
  takeSnapshot();
  fill(root() + "/d/nested");
  const ino_t number = tree().inode("d");
  tree().rename("d/nested", "nested");
  tree().remove("d");
  remount();
  tree().dir("d");
  ASSERT_EQ(tree().inode("d"), number) << "the kernel gave no number twice";
  tree().rename("nested", "d/nested");
  Nested nested = remember("d/nested");
  expectUnlinked(nested, expectEqual());
}

TEST_F(Junctions, DeletedSinceAreSkipped) {
  tree().dirs("d/e");
  tree().file("d/e/file", "text");
  for (const char *path : {"d/e/gone", "d/replaced", "gone"}) make(path);
  takeSnapshot();
  for (const char *path : {"d/e/gone", "d/replaced", "gone"})
    fs().destroySubvolume(fileset() + "/" + path);
  tree().file("d/replaced", "a file");
  tree().removeTree("d/e");
  tree().dirs("gone/new");
  expectEqual();
  EXPECT_TRUE(tree().isDir("d/e"));
}

TEST_F(Junctions, NewDirectoryWithASnapshotInItStays) {
  tree().file("f", "text");
  takeSnapshot();
  tree().dirs("new/deeper");
  tree().dirs("new/beside");
  tree().file("new/deeper/file", "goes");
  const std::string inside = fileset() + "/new/deeper/kept";
  fs().snapshot(fileset(), inside);
  tree().write("f", 0, "else");
  TreePrint kept = fingerprint(fs().path(inside));

  auto want = fingerprint(fs().path(snapshotName()));
  RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(want, fingerprint(root(), {{"new"}, false}))), "");
  EXPECT_EQ(tree().names("new"), std::vector<std::string>{"deeper"});
  EXPECT_EQ(tree().names("new/deeper"), std::vector<std::string>{"kept"});
  EXPECT_EQ(joined(compare(kept, fingerprint(fs().path(inside)))), "");
  EXPECT_NE(result.err.find("new/deeper stays"), std::string::npos) << result.err;
}

TEST_F(Junctions, FolderOfSnapshotsIsLeftAlone) {
  for (bool subvolume : {false, true}) {
    SCOPED_TRACE(subvolume ? "subvolume" : "directory");
    const std::string folder = fileset() + "/.snapshots";
    if (subvolume) {
      make(".snapshots");
    } else {
      tree().dirs(".snapshots");
    }
    tree().dirs(".snapshots/1");
    if (!tree().exists("f")) tree().file("f", "text");
    fs().snapshot(fileset(), folder + "/1/snapshot");
    tree().file(".snapshots/1/info", "made after the snapshot");
    tree().write("f", 0, "else");
    tree().dirs(".snapshots/2");
    tree().file(".snapshots/2/info", "of the second");
    fs().snapshot(fileset(), folder + "/2/snapshot");

    const testsupport::FingerprintOptions without{{".snapshots"}, true};
    auto want = fingerprint(fs().path(folder + "/1/snapshot"), without);
    auto second = fingerprint(fs().path(folder + "/2/snapshot"));
    auto before = fingerprint(fs().path(folder));
    RunResult result = runRestore(fs().mountPoint(), fileset(), folder + "/1/snapshot", {"-m", "4"});
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(root(), without))), "");
    EXPECT_EQ(joined(compare(before, fingerprint(fs().path(folder)))), "");
    EXPECT_EQ(joined(compare(second, fingerprint(fs().path(folder + "/2/snapshot")))), "");
    EXPECT_EQ(result.err.find(".unlinked"), std::string::npos) << result.err;

    for (const char *number : {"1", "2"}) fs().destroySubvolume(folder + "/" + number + "/snapshot");
    if (subvolume) {
      fs().destroySubvolume(folder);
    } else {
      tree().removeTree(".snapshots");
    }
  }
}

TEST_F(Junctions, FailingUnlinkFailsTheRunAndLosesNothing) {
  tree().dirs("d");
  tree().file("d/f", "text");
  takeSnapshot();
  tree().dirs("new");
  make("new/nested");
  fill(root() + "/new/nested");
  make("d/empty");
  const Nested nested = remember("new/nested"), empty = remember("d/empty");
  const std::string kept = fs().path(".unlinked");

  auto expectFailure = [&] {
    RunResult result = restore();
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_EQ(result.processesLeft, 0);
    EXPECT_NE(result.err.find("Failed to unlink the nested fileset at"), std::string::npos)
        << result.err;
    expectUntouched(nested, result);
    expectUntouched(empty, result);
  };
  {
    SCOPED_TRACE("the command fails");
    const char *command = "/usr/qtx/kest/bin/ktunlinkfileset";
    ASSERT_EQ(mount("/bin/false", command, nullptr, MS_BIND, nullptr), 0);
    expectFailure();
    ASSERT_EQ(umount(command), 0);
  }
  {
    SCOPED_TRACE("no place for what is unlinked");
    std::filesystem::remove(kept);
    TreeBuilder(fs().mountPoint()).file(".unlinked", "not a directory");
    expectFailure();
    std::filesystem::remove(kept);
  }
  RunResult result = expectEqual();
  expectUnlinked(nested, result);
  expectUnlinked(empty, result);
}

TEST(TopLevel, FilesetWithOtherSubvolumesInIt) {
  LoopBtrfs fs("top");
  TreeBuilder tree(fs.mountPoint());
  tree.dirs("d");
  tree.file("d/f", "text");
  tree.dirs(".unlinked");
  fs.createSubvolume("d/stood");
  fs.createSubvolume("moved");
  fs.snapshot("/", "snaps/one");
  fill(fs.path("d/stood"));
  fs.createSubvolume("d/made");
  fill(fs.path("d/made"));
  tree.rename("moved", "d/moved");
  fs.createSubvolume(".unlinked/1-earlier");
  tree.write("d/f", 0, "else");
  fs.snapshot("/", "two");
  auto stood = fingerprint(fs.path("d/stood")), made = fingerprint(fs.path("d/made")),
       two = fingerprint(fs.path("two"));
  const std::string madeKept = ".unlinked/" + std::to_string(subvolumeId(fs.path("d/made"))) + "-made";
  const std::string movedKept =
      ".unlinked/" + std::to_string(subvolumeId(fs.path("d/moved"))) + "-moved";

  const testsupport::FingerprintOptions without{{"snaps", ".unlinked"}, true};
  auto want = fingerprint(fs.path("snaps/one"), without);
  RunResult result = runRestore(fs.mountPoint(), "/", "one", {"-m", "4"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  TreePrint have = fingerprint(fs.mountPoint(), without);
  // The folder that holds the snapshot was made with it: whether its entry counts is not the matter.
  EXPECT_EQ(joined(compare(want, have)), "") << result.describe();
  EXPECT_EQ(joined(compare(stood, fingerprint(fs.path("d/stood")))), "");
  EXPECT_EQ(joined(compare(two, fingerprint(fs.path("two")))), "");
  EXPECT_EQ(joined(compare(made, fingerprint(fs.path(madeKept)))), "") << result.describe();
  EXPECT_TRUE(std::filesystem::exists(fs.path(movedKept))) << result.describe();
  EXPECT_TRUE(std::filesystem::exists(fs.path(".unlinked/1-earlier")));
}

}  // namespace
