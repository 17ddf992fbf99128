// How filesets and snapshots are found through a machine's mounts, and what directories show of them.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "platform/kest_reader.h"

namespace {

using namespace kesttest;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

std::string pathOf(const Handle &handle) {
  return kest_get_pathname_from_fssnaphandle(handle.get());
}

class Handles : public testing::Test {
 protected:
  Handles() : fs_("handles") {
    testsupport::runCommand("findmnt -no SOURCE /mnt/handles | tr -d '\\n' > /mnt/source");
    device_ = TreeBuilder("/mnt").read("source");
  }
  ~Handles() override {
    for (auto point = mounted_.rbegin(); point != mounted_.rend(); ++point)
      umount2(point->c_str(), MNT_DETACH);
  }
  // Returns the errno's name and the sentence of a refused open; "" if it was not refused.
  std::string refusal(const char *fileset, const char *snapshot = nullptr,
                      const char *device = "/mnt/handles") {
    Handle handle(kest_get_fset_snaphandle_by_name(device, fileset, snapshot));
    if (handle != nullptr) return "";
    int error = errno;
    return std::string(strerrorname_np(error)) + ": " + kest_error_text();
  }
  std::string mountAt(const std::string &name, const std::string &source, const std::string &options) {
    std::string point = "/mnt/" + name;
    mkdir(point.c_str(), 0755);
    EXPECT_EQ(0, mount(source.c_str(), point.c_str(), "btrfs", options.empty() ? MS_BIND : 0,
                       options.c_str()))
        << strerror(errno);
    mounted_.push_back(point);
    return point;
  }

  LoopBtrfs fs_;
  std::string device_;
  std::vector<std::string> mounted_;
};

TEST_F(Handles, ResolvesOverAllMounts) {
  for (const char *name : {"@", "@home", "data/projects"}) fs_.createSubvolume(name);
  for (const char *name : {"1/snapshot", "2/snapshot", "monday"})
    fs_.snapshot("@home", std::string("@snaps/") + name);
  fs_.snapshot("@", "@snaps/root-monday");
  TreeBuilder(fs_.mountPoint()).file("file", "x");

  Handle home = openHandle(fs_.mountPoint(), "@home");
  EXPECT_EQ("/mnt/handles/@home", pathOf(home));
  EXPECT_EQ(pathOf(home), pathOf(openHandle(fs_.mountPoint() + "/file", "/@home/")));
  EXPECT_EQ(idOf(home), idOf(openHandle(device_, "@home")));
  EXPECT_EQ("/mnt/handles/data/projects", pathOf(openHandle(fs_.mountPoint(), "data/projects")));
  EXPECT_EQ(5u, idOf(openHandle(fs_.mountPoint(), "/")));
  EXPECT_EQ("/mnt/handles", pathOf(openHandle(fs_.mountPoint(), "/")));
  Handle monday = openHandle(fs_.mountPoint(), "@home", "monday");
  EXPECT_EQ("/mnt/handles/@snaps/monday", pathOf(monday));
  EXPECT_EQ(0, kest_is_writable(monday.get()));
  EXPECT_EQ(1, kest_is_writable(home.get()));
  EXPECT_EQ("/mnt/handles/@snaps/2/snapshot",
            pathOf(openHandle(fs_.mountPoint(), "@home", "@snaps/2/snapshot")));

  EXPECT_EQ("ENODEV: /proc is no mounted file system of a known kind",
            refusal("@home", nullptr, "/proc"));
  EXPECT_EQ("ENOENT: /mnt/nothing: No such file or directory",
            refusal("@home", nullptr, "/mnt/nothing"));
  EXPECT_EQ(
      "ENOENT: no fileset @hime in the file system of /mnt/handles; there are /, @, @home, "
      "data/projects",
      refusal("@hime"));
  EXPECT_EQ("ENOENT: fileset @ has no snapshot sunday; there are @snaps/root-monday",
            refusal("@", "sunday"));
  EXPECT_EQ("EINVAL: root-monday is not a snapshot of fileset @home", refusal("@home", "root-monday"));
  EXPECT_EQ(
      "EINVAL: more than one snapshot of fileset @home is named snapshot, use its path below the top "
      "of the file system; there are @snaps/1/snapshot, @snaps/2/snapshot",
      refusal("@home", "snapshot"));

  // The top level is not mounted, the fileset is mounted alone, and a mount shows only part of it.
  TreeBuilder(pathOf(home)).dirs("part");
  std::string by_itself = mountAt("alone", device_, "subvol=@home");
  std::string root = mountAt("root", device_, "subvol=@");
  std::string part = mountAt("part", by_itself + "/part", "");
  for (const std::string &device : {by_itself, part, root})
    EXPECT_EQ("/mnt/alone", pathOf(openHandle(device, "@home")));
  EXPECT_EQ("/mnt/handles/@home", pathOf(openHandle(fs_.mountPoint(), "@home")));
  std::string snaps_id = std::to_string(idOf(monday));
  home.reset();
  monday.reset();
  ASSERT_EQ(0, umount2("/mnt/handles", MNT_DETACH));
  EXPECT_EQ(
      "ENXIO: no mount shows subvolume @snaps/monday of the file system of /mnt/alone: mount it, or "
      "one that it stands in, with -o subvolid=" +
          snaps_id,
      refusal("@home", "monday", "/mnt/alone"));
  ASSERT_EQ(0, umount2("/mnt/alone", MNT_DETACH));
  EXPECT_EQ(0u, refusal("@home", nullptr, "/mnt/root").find("ENXIO: no mount shows subvolume @home "));
}

TEST_F(Handles, IsNotFooledByMountsOnTop) {
  fs_.createSubvolume("data");
  fs_.createSubvolume("other");
  Handle before = openHandle(fs_.mountPoint(), "data");
  // Another subvolume covers the path of the fileset.
  const std::string covered = fs_.path("data");
  ASSERT_EQ(0, mount(fs_.path("other").c_str(), covered.c_str(), nullptr, MS_BIND, nullptr));
  EXPECT_EQ(0u, refusal("data").find("ENXIO"));
  std::string alone = mountAt("alone", device_, "subvol=data");
  EXPECT_EQ(alone, pathOf(openHandle(fs_.mountPoint(), "data")));
  ASSERT_EQ(0, umount(covered.c_str()));
}

TEST_F(Handles, KnowsWhichFilesSurvive) {
  fs_.createSubvolume("data");
  TreeBuilder tree(fs_.path("data"));
  tree.dirs("bin/old");
  for (const char *name : {"bin/kept", "bin/changed", "bin/renamed", "bin/old/tool", "bin/linked"})
    tree.file(name, "program");
  tree.link("bin/linked", "bin/other name");
  fs_.snapshot("data", "snap");
  tree.append("bin/changed", "!");
  tree.rename("bin/renamed", "bin/new name");
  tree.rename("bin/old", "bin/older");
  tree.file("bin/fresh");
  TreeBuilder(fs_.mountPoint()).file("outside");
  Handle active = openHandle(fs_.mountPoint(), "data"),
         snapshot = openHandle(fs_.mountPoint(), "data", "snap");
  const std::pair<const char *, int> expected[] = {
      {"outside", 1},          {"data/bin/kept", 1},     {"data/bin/other name", 1},
      {"data/bin/changed", 0}, {"data/bin/new name", 0}, {"data/bin/older/tool", 0},
      {"data/bin/fresh", 0},   {"data/bin/nothing", -1}};
  for (const auto &[path, survives] : expected)
    EXPECT_EQ(survives, kest_file_survives(active.get(), snapshot.get(), fs_.path(path).c_str()))
        << path;
}

}  // namespace
