// Mounts inside the fileset are never entered, changed or covered. A run that would have to do so is
// refused before it begins.
#include <sys/mount.h>

#include <filesystem>

#include "scenario/restore_fixture.h"

using namespace scenario;
using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::runCommand;

namespace {

void build(TreeBuilder &tree) {
  tree.dirs("same/below");
  tree.dirs("same/other");
  tree.file("same/below/f", "text");
  tree.file("same/file", "text");
  tree.dirs("old/inner");
  tree.file("gone", "text");
}

class MountsBase : public RestoreFixture {
 protected:
  void TearDown() override {
    unmount();
    RestoreFixture::TearDown();
  }
  // Mounts a memory file system with a file on a directory, or another file on a file.
  void mountOn(const std::string &point) {
    if (std::filesystem::is_directory(point)) {
      ASSERT_EQ(mount("none", point.c_str(), "tmpfs", 0, nullptr), 0) << point;
      TreeBuilder(point).file("mounted", "theirs");
    } else {
      TreeBuilder("/mnt").file("mounted" + std::to_string(++files_), "theirs");
      const std::string file = "/mnt/mounted" + std::to_string(files_);
      ASSERT_EQ(mount(file.c_str(), point.c_str(), nullptr, MS_BIND, nullptr), 0) << point;
    }
    points_.push_back(point);
  }
  // Checks that the mount is at its present place and has its contents.
  void expectMounted(const std::string &point) {
    const bool directory = std::filesystem::is_directory(point);
    const std::filesystem::path path = directory ? point + "/mounted" : point;
    EXPECT_EQ(TreeBuilder(path.parent_path()).read(path.filename()), "theirs") << point;
    if (!directory) return;
    EXPECT_EQ(TreeBuilder(point).names(""), std::vector<std::string>{"mounted"});
  }
  void unmount() {
    for (; !points_.empty(); points_.pop_back())
      EXPECT_EQ(umount2(points_.back().c_str(), MNT_DETACH), 0);
  }

  std::vector<std::string> points_;

 private:
  static inline int files_ = 0;
};

using Mounts = MountsBase;

TEST_F(Mounts, WhatStandsOnUnchangedThingsStays) {
  build(tree());
  fs().createSubvolume(fileset() + "/nested");
  takeSnapshot();
  tree().rename("old", "renamed");
  tree().file("same/other/new", "text");
  tree().remove("gone");
  for (const char *point : {"same/below", "same/file", "renamed/inner", "nested"})
    ASSERT_NO_FATAL_FAILURE(mountOn(root() + "/" + point));
  const RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  points_[2] = root() + "/old/inner";  // it went home with its directory
  for (const std::string &point : points_) expectMounted(point);
  unmount();
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName()), {{}, true}),
                           fingerprint(root(), {{}, true}))),
            "");
  fs().destroySubvolume(fileset() + "/nested");
}

struct InTheWay {
  const char *name;
  void (*change)(TreeBuilder &);
  const char *point;
};

class MountsInTheWay : public MountsBase, public ::testing::WithParamInterface<InTheWay> {};

TEST_P(MountsInTheWay, EndTheRunBeforeItChangesAnything) {
  build(tree());
  takeSnapshot();
  GetParam().change(tree());
  TreePrint before = fingerprint(root());
  // Also through another mount of the fileset than the run's.
  std::filesystem::create_directory("/mnt/view");
  ASSERT_EQ(mount(root().c_str(), "/mnt/view", nullptr, MS_BIND, nullptr), 0);
  for (const std::string &view : {root(), std::string("/mnt/view")}) {
    const std::string point = view + "/" + GetParam().point;
    ASSERT_NO_FATAL_FAILURE(mountOn(point));
    const RunResult result = restore();
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find("mounted on " + point + ","), std::string::npos) << result.err;
    expectMounted(point);
    unmount();
    TreePrint after = fingerprint(root());
    before.objects[""] = after.objects[""];  // ignore its times, which the work directory changed
    EXPECT_EQ(joined(compare(before, after)), "");
  }
  EXPECT_EQ(umount("/mnt/view"), 0);
  expectRestored();
}

const InTheWay kInTheWay[] = {
    {"ChangesBelow", [](TreeBuilder &t) { t.append("same/below/f", "more"); }, "same/below"},
    {"New", [](TreeBuilder &t) { t.dir("new"); }, "new"},
    {"InANewTree", [](TreeBuilder &t) { t.dirs("new/tree/deep"); }, "new/tree/deep"},
    {"Renamed", [](TreeBuilder &t) { t.rename("old/inner", "old/renamed"); }, "old/renamed"},
    {"ChangedFile", [](TreeBuilder &t) { t.append("same/file", "more"); }, "same/file"},
    {"NestedFileset",
     [](TreeBuilder &t) { testsupport::runCommand("btrfs -q subvolume create " + t.root() + "/sub"); },
     "sub"},
};
INSTANTIATE_TEST_SUITE_P(All, MountsInTheWay, ::testing::ValuesIn(kInTheWay),
                         [](const auto &one) { return std::string(one.param.name); });

// The mount named on the command line is read-only, and another one is writable.
TEST_F(Mounts, AWritableOneIsTaken) {
  build(tree());
  takeSnapshot();
  tree().append("same/file", "more");
  std::filesystem::create_directory("/mnt/view");
  ASSERT_EQ(mount(fs().mountPoint().c_str(), "/mnt/view", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, "/mnt/view", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  // A path that ends in another mount than the one that it begins with does not count.
  ASSERT_EQ(mount(("/mnt/view/" + fileset()).c_str(), root().c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, root().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  RunResult result = testsupport::runRestore("/mnt/view", fileset(), snapshotName());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("is read-only"), std::string::npos) << result.err;
  std::filesystem::create_directory("/mnt/writable");
  runCommand("mount -o loop,subvol=" + fileset() + " " + fs().image() + " /mnt/writable");
  result = testsupport::runRestore("/mnt/view", fileset(), snapshotName());
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  for (const std::string &point : {std::string("/mnt/writable"), root(), std::string("/mnt/view")})
    ASSERT_EQ(umount(point.c_str()), 0) << point;
  expectRestored();
}

// The chain of parents is broken, but fileset and snapshot share the creation of their root
// directories.
TEST_F(Mounts, LineageAfterARollback) {
  build(tree());
  takeSnapshot();
  tree().append("gone", "more");
  fs().snapshot(fileset(), "between");
  fs().destroySubvolume(fileset());
  fs().snapshot("between", fileset(), false);
  fs().destroySubvolume("between");
  remount();
  runCommand("cd " + fs().mountPoint() +
             " && btrfs filesystem sync . && btrfs subvolume sync . >/dev/null");
  tree().append("same/file", "more");
  tree().rename("old", "same/renamed");
  tree().removeTree("same/other");
  tree().dirs("new/deep");
  expectRestored();
  // Relatives by creation alone are listed, too, but an unrelated subvolume is not.
  fs().createSubvolume("stranger");
  RunResult result = testsupport::runRestore(fs().mountPoint(), "stranger", snapshotName());
  EXPECT_NE(result.err.find("is not a snapshot of fileset stranger"), std::string::npos) << result.err;
  fs().destroySubvolume("stranger");
}

// The top level of a converted file system has no UUID.
TEST_F(Mounts, LineageOfAConvertedFileSystem) {
  const std::string image = "/mnt/converted.image", top = "/mnt/converted";
  runCommand("mkdir " + top + " && truncate -s 300M " + image + " && mkfs.ext4 -q -b 4096 " + image +
             " && mount -o loop " + image + " " + top + " && echo text >" + top + "/f && umount " +
             top + " && btrfs-convert " + image + " >/dev/null 2>&1 && mount -t btrfs -o loop " +
             image + " " + top + " && btrfs -q subvolume snapshot -r " + top + " " + top + "/one");
  TreeBuilder(top).append("f", "more");
  TreeBuilder(top).file("new", "text");
  const RunResult result = testsupport::runRestore(top, "/", "one");
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  const testsupport::FingerprintOptions without{{"one"}, true};
  EXPECT_EQ(joined(compare(fingerprint(top + "/one", without), fingerprint(top, without))), "");
  runCommand("umount " + top + " && rm " + image);
}

TEST_F(Mounts, InTheSnapshot) {
  build(tree());
  takeSnapshot();
  tree().append("same/below/f", "more");
  const std::string snapshot = fs().path(snapshotName());
  ASSERT_NO_FATAL_FAILURE(mountOn(snapshot + "/same/below"));
  EXPECT_EQ(restore().exitStatus, 1);
  EXPECT_EQ(tree().read("same/below/f"), "textmore");
  unmount();
  ASSERT_NO_FATAL_FAILURE(mountOn(snapshot + "/same/other"));
  EXPECT_EQ(restore().exitStatus, 0);
  unmount();
  expectRestored();
}

// The options of a mount apply to the whole file system.
using WithoutAcls = RestoreFixture;

TEST_F(WithoutAcls, EndsTheRunWhereTheDifferenceHoldsOne) {
  tree().file("plain", "text");
  for (const char *name : {"same", "deleted"}) {
    tree().file(name, "text");
    tree().setXattr(name, testsupport::kAccessAcl, testsupport::aclForUser(1000, 4));
  }
  takeSnapshot();
  tree().append("plain", "more");
  remount("noacl");
  EXPECT_EQ(restore().exitStatus, 0);
  EXPECT_EQ(tree().read("plain"), "text");
  tree().append("plain", "more");
  tree().remove("deleted");
  const RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find("mount -o remount,acl " + root()), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(root() + "/deleted has an access control list"), std::string::npos);
  EXPECT_EQ(tree().read("plain"), "textmore");
  remount();
  expectRestored();
}

}  // namespace
