// fset on the layouts of snapshot tools and distributions, made by the tools themselves. The mounts are
// those of such machines and never include the top level.
#include <dirent.h>

#include <filesystem>

#include "scenario/fset_fixture.h"
#include "support/survival.h"

using namespace scenario;
using testsupport::LoopBtrfs;
using testsupport::runCommand;

namespace {

class Layouts : public ::testing::Test {
 protected:
  void SetUp() override {
    fs_.createSubvolume("@");
    fs_.createSubvolume("@home");
    fill(fs_.path("@home"));
  }
  void TearDown() override {
    for (const std::string &point : {fs_.mountPoint() + "/.snapshots", std::string("/mnt/top"),
                                     std::string("/etc/snapper"), std::string("/etc/default/snapper")})
      runCommand("! mountpoint -q " + point + " || umount " + point);
  }

  static void fill(const std::string &root) {
    TreeBuilder tree(root);
    tree.dirs("projects/a");
    tree.file("projects/a/changed", "before");
    tree.file("projects/a/deleted", "text");
    tree.file("renamed", "text");
  }
  static void wreck(const std::string &root) {
    testsupport::awaitClockTick();
    TreeBuilder tree(root);
    tree.write("projects/a/changed", 0, "after!");
    tree.remove("projects/a/deleted");
    tree.rename("renamed", "elsewhere");
    tree.file("new", "new");
  }
  // Keeps snapper's own files in a folder of this test.
  void configureSnapper(const std::string &root) {
    runCommand(
        "rm -rf /mnt/snapper && cp -a /etc/snapper /mnt/snapper && rm -f /mnt/snapper/configs/* && "
        "echo 'SNAPPER_CONFIGS=\"\"' > /mnt/snapper.default && mount --bind /mnt/snapper /etc/snapper "
        "&& "
        "mount --bind /mnt/snapper.default /etc/default/snapper && "
        "snapper --no-dbus -c test create-config " +
        root);
  }
  static void snapper(const std::string &description) {
    runCommand("snapper --no-dbus -c test create --description '" + description + "'");
  }
  std::string device() {
    runCommand("findmnt -n -o SOURCE " + fs_.mountPoint() +
               " | sed 's/\\[.*//' | tr -d '\\n' > /mnt/device");
    return testsupport::readAll("/mnt/device");
  }
  // Returns the tree of a snapshot through a separate mount.
  std::string snapshotTree(const std::string &path) {
    runCommand("mkdir -p /mnt/top && { mountpoint -q /mnt/top || mount -o ro,subvolid=5 " + device() +
               " /mnt/top; }");
    return "/mnt/top/" + path;
  }
  Json listed(const std::string &place) { return fsetJson({"list", place})["snapshots"]; }
  void expectMade(const Json &one, const char *by, const char *name, const char *path,
                  const char *description) {
    EXPECT_EQ(one["made_by"], by) << one.dump(2);
    EXPECT_EQ(one["name"], name) << one.dump(2);
    EXPECT_EQ(one["path"], path) << one.dump(2);
    EXPECT_EQ(one["description"], description) << one.dump(2);
  }

  LoopBtrfs fs_{"layout", 1ull << 30};
  const std::string home_ = fs_.mountPoint();  // mounted there later
};

TEST_F(Layouts, SnapperNested) {
  fs_.remount("", "@home");
  configureSnapper(home_);
  snapper("first");
  snapper("before <apt> & \"co\"");
  wreck(home_);
  const Json all = listed(home_ + "/projects");
  ASSERT_EQ(all.size(), 2u);
  expectMade(all[0], "snapper", "#2", "@home/.snapshots/2/snapshot", "before <apt> & \"co\"");
  EXPECT_EQ(all[1]["number"], 1);
  expectThereAndBack({home_}, home_, "#2", home_ + "/.snapshots/2/snapshot", {{".snapshots"}});
  snapper("after");
  EXPECT_EQ(runFset({"restore", home_, "1", "--yes"}).exitStatus, 0);
}

TEST_F(Layouts, SnapperFlat) {
  fs_.createSubvolume("@snapshots");
  fs_.remount("", "@home");
  configureSnapper(home_);
  runCommand("btrfs -q subvolume delete " + home_ + "/.snapshots && mkdir " + home_ +
             "/.snapshots && mount -o subvol=@snapshots " + device() + " " + home_ + "/.snapshots");
  snapper("flat");
  wreck(home_);
  expectMade(listed(home_)[0], "snapper", "#1", "@snapshots/1/snapshot", "flat");
  expectThereAndBack({home_}, home_, "latest", home_ + "/.snapshots/1/snapshot", {{".snapshots"}});
}

TEST_F(Layouts, Btrbk) {
  runCommand("mkdir " + home_ + "/btrbk && printf 'timestamp_format long\\nvolume " + home_ +
             "\\nsnapshot_dir btrbk\\nsubvolume @home\\n' > /mnt/btrbk.conf && "
             "btrbk -q -c /mnt/btrbk.conf snapshot && btrbk -q -c /mnt/btrbk.conf snapshot");
  fs_.remount("", "@home");
  wreck(home_);
  const Json all = listed(home_);
  ASSERT_EQ(all.size(), 2u);
  for (const Json &one : all) EXPECT_EQ(one["made_by"], "btrbk") << one.dump(2);
  expectThereAndBack({home_}, home_, all[1]["name"], snapshotTree(all[1]["path"]));
}

TEST_F(Layouts, Timeshift) {
  runCommand(std::string(TIMESHIFT_MACHINE) + " " + home_ + " 'before <apt>'");
  fs_.remount("", "@home");
  wreck(home_);
  const Json all = listed(home_);
  ASSERT_EQ(all.size(), 1u);
  const std::string name = all[0]["name"];
  expectMade(all[0], "timeshift", name.c_str(),
             ("timeshift-btrfs/snapshots/" + name + "/@home").c_str(), "before <apt>");
  EXPECT_EQ(name.substr(0, 2), "20");
  expectThereAndBack({home_}, home_, name, snapshotTree(all[0]["path"]));
}

// The rollback puts a writable snapshot in place of the subvolume and keeps the old one.
TEST_F(Layouts, AfterARollbackByExchange) {
  fs_.snapshot("@home", "old");
  wreck(fs_.path("@home"));
  fs_.snapshot("@home", "wrecked");
  runCommand("mv " + fs_.path("@home") + " " + fs_.path("@home.before"));
  fs_.snapshot("old", "@home", false);
  TreeBuilder(fs_.path("@home")).file("after the rollback", "x");
  fs_.remount("", "@home");
  const Json all = listed(home_);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(fsetJson({"diff", home_, "latest"}, 1)["snapshot"]["path"], "wrecked")
      << "@home.before is writable";
  expectThereAndBack({home_}, home_, "wrecked", snapshotTree("wrecked"));
  EXPECT_EQ(runFset({"restore", home_, "old", "--yes"}).exitStatus, 0);
}

// Layers of images and containers: subvolumes in the fileset, some of them snapshots of others.
TEST_F(Layouts, ContainerHost) {
  const std::string layers = "@/var/lib/containers/";
  fill(fs_.path("@"));
  fs_.createSubvolume(layers + "base");
  fill(fs_.path(layers + "base"));
  fs_.snapshot(layers + "base", layers + "layer", false);
  fs_.snapshot("@", "root-snap");
  wreck(fs_.path("@"));
  wreck(fs_.path(layers + "layer"));
  fs_.remount("", "@");
  const std::string layer = home_ + "/var/lib/containers/layer";
  EXPECT_EQ(listed(home_).size(), 1u);
  EXPECT_EQ(listed(layer)[0]["name"], "base") << "the path says which fileset";
  expectThereAndBack({home_}, home_, "root-snap", snapshotTree("root-snap"), {{}, true});
  EXPECT_EQ(TreeBuilder(layer).read("projects/a/changed"), "after!") << "nested ones are left alone";
  EXPECT_EQ(runFset({"restore", layer, "base", "--yes"}).exitStatus, 0);
  EXPECT_EQ(TreeBuilder(layer).read("projects/a/changed"), "before");
}

}  // namespace
