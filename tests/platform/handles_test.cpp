// How filesets and snapshots are found over the mounts of a machine, and what directories show of them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/kest_reader.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using namespace kesttest;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

uint64_t idOf(const Handle &handle) {
  kest_snapid_t id = 0;
  EXPECT_EQ(0, kest_get_fssnapid_from_fssnaphandle(handle.get(), &id));
  return id;
}

std::string pathOf(const Handle &handle) {
  return kest_get_pathname_from_fssnaphandle(handle.get());
}

class Handles : public testing::Test {
 protected:
  Handles() : fs_("handles") {}
  // The errno's name and the sentence of a refused open, or "" when it was not refused.
  std::string refusal(const char *fileset, const char *snapshot = nullptr,
                      const char *device = nullptr) {
    Handle handle(kest_get_fset_snaphandle_by_name(device ? device : fs_.mountPoint().c_str(), fileset,
                                                   snapshot));
    if (handle != nullptr) return "";
    int error = errno;
    return std::string(strerrorname_np(error)) + ": " + kest_error_text();
  }
  std::string loopDevice() {
    struct stat status;
    char link[64], name[256];
    EXPECT_EQ(0, stat(fs_.mountPoint().c_str(), &status));
    std::string text;
    FILE *mounts = fopen("/proc/self/mounts", "re");
    while (fgets(name, sizeof name, mounts) != nullptr)
      if (sscanf(name, "/dev/%63s /mnt/handles ", link) == 1 && strstr(name, " /mnt/handles btrfs"))
        text = link;
    fclose(mounts);
    return "/dev/" + text;
  }
  std::string mountAt(const std::string &name, const std::string &options, unsigned long flags = 0) {
    std::string point = "/mnt/" + name;
    mkdir(point.c_str(), 0755);
    EXPECT_EQ(0, mount(loopDevice().c_str(), point.c_str(), "btrfs", flags, options.c_str()))
        << strerror(errno);
    mounted_.push_back(point);
    return point;
  }
  ~Handles() override {
    for (auto point = mounted_.rbegin(); point != mounted_.rend(); ++point)
      umount2(point->c_str(), MNT_DETACH);
  }

  LoopBtrfs fs_;
  std::vector<std::string> mounted_;
};

TEST_F(Handles, ResolvesOverAllMounts) {
  fs_.createSubvolume("@");
  fs_.createSubvolume("@home");
  fs_.createSubvolume("data/projects");
  fs_.snapshot("@home", "@snaps/1/snapshot");
  fs_.snapshot("@home", "@snaps/2/snapshot");
  fs_.snapshot("@home", "@snaps/monday");
  fs_.snapshot("@", "@snaps/root-monday");
  TreeBuilder(fs_.mountPoint()).file("file", "x");

  Handle home = openHandle(fs_.mountPoint(), "@home");
  EXPECT_EQ("/mnt/handles/@home", pathOf(home));
  EXPECT_EQ(pathOf(home), pathOf(openHandle(fs_.mountPoint() + "/file", "/@home/")));
  EXPECT_EQ(idOf(home), idOf(openHandle(loopDevice(), "@home")));
  EXPECT_EQ("/mnt/handles/data/projects", pathOf(openHandle(fs_.mountPoint(), "data/projects")));
  EXPECT_EQ(5u, idOf(openHandle(fs_.mountPoint(), "/")));
  EXPECT_EQ("/mnt/handles", pathOf(openHandle(fs_.mountPoint(), "/")));
  Handle monday = openHandle(fs_.mountPoint(), "@home", "monday");
  EXPECT_EQ("/mnt/handles/@snaps/monday", pathOf(monday));
  EXPECT_EQ(0, kest_is_writable(monday.get()));
  EXPECT_EQ(1, kest_is_writable(home.get()));
  EXPECT_EQ("/mnt/handles/@snaps/2/snapshot",
            pathOf(openHandle(fs_.mountPoint(), "@home", "@snaps/2/snapshot")));

  EXPECT_EQ("ENODEV: /proc is no mounted btrfs file system", refusal("@home", nullptr, "/proc"));
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
      "of "
      "the file system; there are @snaps/1/snapshot, @snaps/2/snapshot",
      refusal("@home", "snapshot"));

  // The top level mounted nowhere, the fileset by itself, and a mount that is only a part of it.
  TreeBuilder(pathOf(home)).dirs("part");
  std::string by_itself = mountAt("alone", "subvol=@home");
  std::string root = mountAt("root", "subvol=@");
  mkdir("/mnt/part", 0755);
  ASSERT_EQ(0, mount((by_itself + "/part").c_str(), "/mnt/part", nullptr, MS_BIND, nullptr));
  mounted_.push_back("/mnt/part");
  EXPECT_EQ("/mnt/alone", pathOf(openHandle(by_itself, "@home")));
  EXPECT_EQ("/mnt/alone", pathOf(openHandle("/mnt/part", "@home")));
  EXPECT_EQ("/mnt/alone", pathOf(openHandle(root, "@home")));
  EXPECT_EQ("/mnt/handles/@home", pathOf(openHandle(fs_.mountPoint(), "@home")));
  std::string snaps_id = std::to_string(idOf(monday));
  home.reset();
  monday.reset();
  ASSERT_EQ(0, umount2("/mnt/handles", MNT_DETACH));
  EXPECT_EQ(
      "ENXIO: no mount shows subvolume @snaps/monday of the file system of /mnt/alone: mount it, or "
      "one "
      "that it stands in, with -o subvolid=" +
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
  std::string other = fs_.path("other");
  ASSERT_EQ(0, mount(other.c_str(), fs_.path("data").c_str(), nullptr, MS_BIND, nullptr));
  EXPECT_EQ(0u, refusal("data").find("ENXIO"));
  std::string alone = mountAt("alone", "subvol=data");
  EXPECT_EQ(alone, pathOf(openHandle(fs_.mountPoint(), "data")));
  ASSERT_EQ(0, umount(fs_.path("data").c_str()));
  // A directory with a mount on it is listed as what it is.
  TreeBuilder tree(fs_.path("data"));
  tree.dirs("covered/inside");
  ASSERT_EQ(0, mount("none", (tree.root() + "/covered").c_str(), "tmpfs", 0, nullptr));
  Handle data = openHandle(fs_.mountPoint(), "data");
  EXPECT_EQ("covered", listing(data, 256));
  ASSERT_EQ(0, umount((tree.root() + "/covered").c_str()));
  EXPECT_EQ("inside", listing(data, tree.inode("covered")));
}

TEST_F(Handles, HidesWhatBelongsToNobodysRestore) {
  fs_.createSubvolume("data");
  TreeBuilder tree(fs_.path("data"));
  fs_.createSubvolume("data/stays");
  fs_.createSubvolume("data/moves");
  fs_.createSubvolume("data/goes");
  tree.file("file");
  tree.dirs("backups");
  fs_.snapshot("data", "data/backups/early");
  tree.dirs(".snapshots/1");
  tree.file(".snapshots/1/info.xml");
  fs_.snapshot("data", "snap");
  fs_.snapshot("data", "data/.snapshots/1/snapshot");
  fs_.snapshot("data", "data/backups/late");
  tree.dirs(".snapshots/2");
  tree.file(".snapshots/2/info.xml");
  tree.remove(".snapshots/1/info.xml");
  std::string device = fs_.mountPoint();
  uint64_t moves = idOf(openHandle(device, "data/moves")), goes = idOf(openHandle(device, "data/goes"));
  tree.dirs("there");
  tree.rename("moves", "there/moves");
  fs_.destroySubvolume("data/goes");
  fs_.createSubvolume("data/new");
  uint64_t fresh = idOf(openHandle(device, "data/new"));

  Handle active = openHandle(device, "data"), snapshot = openHandle(device, "data", "snap");
  auto junction = [](const char *name, uint64_t id) { return name + ("=" + std::to_string(id)); };
  EXPECT_EQ("backups file " + junction("new", fresh) + " there", listing(active, 256));
  EXPECT_EQ("backups file " + junction("goes", goes) + " " + junction("moves", moves),
            listing(snapshot, 256));
  EXPECT_EQ(junction("moves", moves), listing(active, tree.inode("there")));
  EXPECT_EQ("", listing(active, tree.inode("backups")));
  EXPECT_EQ("", listing(snapshot, tree.inode("backups")));

  Scan scan = openDifference(active, snapshot);
  EXPECT_EQ(junction("goes@snap", goes) + " " + junction("moves@snap", moves) + " " +
                junction("new", fresh) + " there",
            changedEntries(active, scan, 256));
  EXPECT_EQ("", changedEntries(active, scan, tree.inode("backups")));
  // "backups" itself has another modification time; nothing of .snapshots is in the difference.
  EXPECT_EQ("256 " + std::to_string(tree.inode("backups")) + " " + std::to_string(tree.inode("there")),
            inodesOf(scan));

  // The top level as a fileset: every other subvolume stands in it.
  fs_.snapshot("/", "top-snap");
  TreeBuilder(device).dirs(".unlinked");
  TreeBuilder(device).file("top file");
  Handle top = openHandle(device, "/"), top_snapshot = openHandle(device, "/", "top-snap");
  EXPECT_EQ("top file", listing(top, 256));
  EXPECT_EQ("", listing(top_snapshot, 256));
  EXPECT_EQ("top file", changedEntries(top, openDifference(top, top_snapshot), 256));
  EXPECT_EQ("256 " + std::to_string(TreeBuilder(device).inode("top file")),
            inodesOf(openDifference(top, top_snapshot)));
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
  auto survives = [&](const std::string &path) {
    return kest_file_survives(active.get(), snapshot.get(), fs_.path(path).c_str());
  };
  EXPECT_EQ(1, survives("outside"));
  EXPECT_EQ(1, survives("data/bin/kept"));
  EXPECT_EQ(1, survives("data/bin/other name"));
  EXPECT_EQ(0, survives("data/bin/changed"));
  EXPECT_EQ(0, survives("data/bin/new name"));
  EXPECT_EQ(0, survives("data/bin/older/tool"));
  EXPECT_EQ(0, survives("data/bin/fresh"));
  EXPECT_EQ(-1, survives("data/bin/nothing"));
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
