// Which inodes and entries the difference scan reports, on a real btrfs.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "platform/kest_reader.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using namespace kesttest;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

class Difference : public testing::Test {
 protected:
  Difference() : fs_("difference"), root_(fs_.createSubvolume("data")), tree_(root_) {}

  void snapshot(const char *name = "snap") {
    fs_.snapshot("data", std::string("snaps/") + name);
    active_ = openHandle(fs_.mountPoint(), "data");
    snapshot_ = openHandle(fs_.mountPoint(), "data", name);
    fs_.commit();
    now_.clear();
  }
  // The number of an object, in the form of inodesOf.
  void expect(const std::string &path) { now_.insert({tree_.inode(path), false}); }
  void expectGone(ino_t ino) { now_.insert({ino, true}); }
  std::string expected() const {
    std::string text;
    for (auto [ino, gone] : now_)
      text += (text.empty() ? "" : " ") + std::string(gone ? "-" : "") + std::to_string(ino);
    return text;
  }
  std::string inodes() { return inodesOf(openDifference(active_, snapshot_)); }

  LoopBtrfs fs_;
  std::string root_;
  TreeBuilder tree_;
  Handle active_, snapshot_;
  std::map<ino_t, bool> now_;
};

TEST_F(Difference, ReportsExactlyWhatChangedInOrder) {
  for (int i = 0; i < 300; ++i) tree_.file("quiet" + std::to_string(i), "quiet");
  tree_.dirs("work/deep/deeper");
  for (const char *name : {"data", "mode", "xattr", "linked", "renamed", "read", "dropped", "held"})
    tree_.file(std::string("work/") + name, name);
  for (const char *name : {"one", "two"}) tree_.file(std::string("work/deep/deeper/") + name, name);
  tree_.file("work/deep/kept", "kept");
  tree_.dirs("moved/inside");
  tree_.file("moved/inside/child");
  tree_.fifo("work/pipe");
  tree_.symlink("target", "work/pointer");
  snapshot();
  EXPECT_EQ("", inodes());

  std::map<std::string, ino_t> gone;
  for (const char *path : {"work/deep", "work/deep/deeper", "work/deep/deeper/one",
                           "work/deep/deeper/two", "work/dropped", "work/held"})
    expectGone(gone[path] = tree_.inode(path));
  tree_.append("work/data", "more");
  tree_.chmod("work/mode", 0600);
  tree_.setXattr("work/xattr", "user.new", "value");
  tree_.link("work/linked", "work/second name");
  tree_.rename("work/renamed", "work/new name");
  tree_.rename("moved", "moved away");
  tree_.chmod("work/pipe", 0600);
  tree_.rename("work/deep/kept", "work/kept");
  tree_.removeTree("work/deep");
  tree_.remove("work/dropped");
  int held = open((root_ + "/work/held").c_str(), O_RDONLY | O_CLOEXEC);
  tree_.remove("work/held");
  tree_.dirs("fresh/below");
  tree_.file("fresh/below/file");
  // An access time alone is no change.
  fs_.commit();
  struct stat before, after;
  ASSERT_EQ(0, stat((root_ + "/work/read").c_str(), &before));
  int reader = open((root_ + "/work/read").c_str(), O_RDONLY | O_CLOEXEC);
  char byte;
  ASSERT_EQ(1, read(reader, &byte, 1));
  close(reader);
  ASSERT_EQ(0, stat((root_ + "/work/read").c_str(), &after));
  ASSERT_NE(before.st_atim.tv_nsec, after.st_atim.tv_nsec);
  for (const char *path :
       {".", "work", "work/data", "work/mode", "work/xattr", "work/linked", "work/new name",
        "work/pipe", "work/kept", "moved away", "fresh", "fresh/below", "fresh/below/file"})
    expect(path);
  EXPECT_EQ(expected(), inodes());

  Scan scan = openDifference(active_, snapshot_);
  const kest_iattr64_t *attr;
  auto statOne = [&](ino_t ino) {
    EXPECT_EQ(0, kest_stat_inode64(scan.get(), ino, ino + 1, &attr));
    return attr;
  };
  EXPECT_EQ(nullptr, statOne(tree_.inode("work/read")));
  EXPECT_EQ(nullptr, statOne(gone["work/dropped"]));
  EXPECT_EQ(nullptr, statOne(gone["work/held"]));
  ASSERT_NE(nullptr, statOne(tree_.inode("work/xattr")));
  EXPECT_NE(0u, attr->ia_xattr);
  EXPECT_EQ(5, attr->ia_size);
  ASSERT_NE(nullptr, statOne(tree_.inode("work/mode")));
  EXPECT_EQ(S_IFREG | 0600u, attr->ia_mode);
  EXPECT_EQ(0u, attr->ia_xattr);
  close(held);

  // The scan can be taken piece by piece, and never goes beyond the end it was given.
  Scan pieces = openDifference(active_, snapshot_);
  std::string text;
  for (uint64_t end = 255; end < 1000; end += 7) {
    while (kest_next_inode64(pieces.get(), end, &attr) == 0 && attr != nullptr) {
      EXPECT_LE(attr->ia_inode, end);
      text += (text.empty() ? "" : " ") + std::string(attr->ia_nlink == 0 ? "-" : "") +
              std::to_string(attr->ia_inode);
    }
  }
  EXPECT_EQ(expected(), text);
}

TEST_F(Difference, LeavesOutWhatWasPutBack) {
  tree_.file("data", "original");
  tree_.file("mode", "m");
  tree_.file("renamed", "r");
  tree_.file("xattr", "x");
  tree_.file("deleted");
  tree_.dirs("folder");
  tree_.file("folder/child");
  struct stat root;
  ASSERT_EQ(0, stat(root_.c_str(), &root));
  snapshot();
  ino_t deleted = tree_.inode("deleted");
  struct stat before, folder;
  stat((root_ + "/data").c_str(), &before);
  stat((root_ + "/folder").c_str(), &folder);

  tree_.write("data", 0, "ORIGINAL");
  tree_.chmod("mode", 0600);
  tree_.rename("renamed", "elsewhere");
  tree_.setXattr("xattr", "user.a", "1");
  tree_.link("folder/child", "folder/again");
  tree_.remove("deleted");
  fs_.commit();
  tree_.write("data", 0, "original");
  tree_.mtime("data", before.st_mtim.tv_sec, before.st_mtim.tv_nsec);
  tree_.chmod("mode", 0644);
  tree_.rename("elsewhere", "renamed");
  tree_.removeXattr("xattr", "user.a");
  tree_.remove("folder/again");
  tree_.mtime("folder", folder.st_mtim.tv_sec, folder.st_mtim.tv_nsec);
  tree_.mtime(".", root.st_mtim.tv_sec, root.st_mtim.tv_nsec);
  // Only what cannot come back is left: a deleted inode, and its directory, which lacks an entry.
  EXPECT_EQ("256 -" + std::to_string(deleted), inodes());
  // A changed value behind equal times is still a change.
  tree_.write("data", 0, "0riginal");
  tree_.mtime("data", before.st_mtim.tv_sec, before.st_mtim.tv_nsec);
  EXPECT_EQ("256 " + std::to_string(tree_.inode("data")) + " -" + std::to_string(deleted), inodes());
}

TEST_F(Difference, ListsChangedEntries) {
  for (int i = 0; i < 1000; ++i) tree_.file("quiet" + std::to_string(i));
  tree_.dirs("d");
  for (const char *name : {"a", "b", "c", "e", "gone", "same"})
    tree_.file(std::string("d/") + name, name);
  tree_.dirs("untouched");
  tree_.file("untouched/file");
  snapshot();
  ino_t c = tree_.inode("d/c");
  tree_.exchange("d/a", "d/b");
  tree_.remove("d/gone");
  tree_.file("d/new");
  tree_.remove("d/c");
  tree_.file("d/c", "another");
  tree_.rename("d/e", "d/f");
  tree_.rename("d/f", "d/e");  // back again, under a new index
  tree_.dirs("d/fresh");
  tree_.file("d/fresh/x");
  tree_.append("untouched/file", "!");
  Scan scan = openDifference(active_, snapshot_);
  ASSERT_NE(c, tree_.inode("d/c"));
  EXPECT_EQ("a a@snap b b@snap c c@snap fresh gone@snap new",
            changedEntries(active_, scan, tree_.inode("d")));
  EXPECT_EQ("x", changedEntries(active_, scan, tree_.inode("d/fresh")));
  EXPECT_EQ("", changedEntries(active_, scan, tree_.inode("untouched")));
  EXPECT_EQ("", changedEntries(active_, scan, 256));

  // Generations of both sides are told; the kernel's own word for a name is its number.
  Inode dir = openInode(active_, tree_.inode("d"));
  const kest_direntx64_t *entry;
  int seen = 0;
  while (kest_ireaddirx64(dir.get(), scan.get(), &entry) == 0 && entry != nullptr) {
    if (std::string(entry->d_name) != "c") continue;
    bool old = (entry->d_type & KEST_DT_SNAP) != 0;
    EXPECT_EQ(old ? c : tree_.inode("d/c"), entry->d_ino);
    Inode one = openInode(old ? snapshot_ : active_, entry->d_ino);
    EXPECT_EQ(one->if_generation, entry->d_gen);
    EXPECT_EQ(DT_REG, entry->d_type & 0xf);
    ++seen;
  }
  EXPECT_EQ(2, seen);
}

TEST_F(Difference, LeadsToChangesAndJunctionsAlone) {
  for (const char *dir : {"quiet/q", "way/down/far", "moved/in", "links", "flags", "holds/junction"})
    tree_.dirs(dir);
  for (const char *file : {"quiet/q/f", "way/down/far/f", "way/down/far/g", "moved/in/f", "links/f"})
    tree_.file(file, "text");
  // More names in one directory than one item holds.
  const auto linkName = [](int i) { return "links/" + std::string(120, 'n') + std::to_string(i); };
  for (int i = 0; i < 300; ++i) tree_.link("links/f", linkName(i));
  tree_.link("links/f", "way/link");
  tree_.dirs(".snapshots/1");
  tree_.file(".snapshots/1/info", "text");
  snapshot();
  tree_.append("way/down/far/f", "!");
  tree_.rename("moved", "quiet/moved");
  tree_.append("links/f", "!");
  tree_.chmod("flags", 0700);
  tree_.append(".snapshots/1/info", "!");
  fs_.createSubvolume("data/holds/junction/nested");
  Scan scan = openDifference(active_, snapshot_);
  const auto leads = [&](const std::string &dir) {
    return leadingEntries(active_, scan, tree_.inode(dir));
  };
  const std::string nested = leads("holds/junction");
  EXPECT_EQ("nested=", nested.substr(0, 7)) << nested;
  EXPECT_EQ("quiet way links flags holds", leads("."));
  EXPECT_EQ("moved", leads("quiet"));
  EXPECT_EQ("down link", leads("way"));
  EXPECT_EQ("f", leads("way/down/far"));
  EXPECT_EQ("", leads("quiet/moved"));
  EXPECT_EQ("", leads("flags"));
  const std::string links = leads("links");
  for (int i = 0; i < 300; ++i)
    ASSERT_NE(std::string::npos, (links + " ").find(linkName(i).substr(6) + " ")) << i;
  EXPECT_EQ(300, std::count(links.begin(), links.end(), ' '));
  for (const char *dir :
       {"quiet", "quiet/moved", "way", "way/down/far", "flags", "holds", "holds/junction"})
    EXPECT_EQ(1, kest_leads_to_change(scan.get(), tree_.inode(dir))) << dir;
  for (const char *dir :
       {"quiet/q", "quiet/moved/in", "way/down/far/g", ".snapshots", ".snapshots/1/info"})
    EXPECT_EQ(0, kest_leads_to_change(scan.get(), tree_.inode(dir))) << dir;
  const auto known = [&](const char *path) { return kest_idifference(scan.get(), tree_.inode(path)); };
  const int both = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;
  EXPECT_EQ(both | KEST_DI_LINKED, known("links/f"));
  EXPECT_EQ(both, known("way/down/far/f"));
  EXPECT_EQ(both | KEST_DI_DIR, known("flags"));
  EXPECT_EQ(both | KEST_DI_DIR | KEST_DI_ENTRIES, known("quiet"));
  EXPECT_EQ(0, known("way"));

  // A listing that is under way sees what has been done since.
  Inode far = openInode(active_, tree_.inode("way/down/far"));
  const ino_t gone = tree_.inode("way/down/far/f");
  tree_.rename("way/down/far/f", "elsewhere");
  tree_.file("way/down/far/f");
  const kest_direntx64_t *entry;
  ASSERT_EQ(0, kest_ireaddirc64(far.get(), scan.get(), &entry));
  EXPECT_EQ(nullptr, entry);
  EXPECT_EQ(1, kest_leads_to_change(scan.get(), gone));
}

TEST_F(Difference, TellsReusedNumbersApart) {
  tree_.file("stays");
  tree_.dirs("last");
  tree_.file("last/one", "1");
  tree_.file("last/two", "2");
  snapshot();
  ino_t dir = tree_.inode("last"), one = tree_.inode("last/one"), two = tree_.inode("last/two");
  tree_.removeTree("last");
  fs_.commit();
  active_.reset();
  snapshot_.reset();
  tree_ = TreeBuilder("/");
  fs_.remount();
  tree_ = TreeBuilder(root_);
  tree_.file("reused", "x");
  ASSERT_EQ(dir, tree_.inode("reused")) << "the file system did not give the number again";
  tree_.dirs("last");
  ASSERT_EQ(one, tree_.inode("last"));
  active_ = openHandle(fs_.mountPoint(), "data");
  snapshot_ = openHandle(fs_.mountPoint(), "data", "snap");
  EXPECT_EQ("256 " + std::to_string(dir) + " " + std::to_string(one) + " -" + std::to_string(two),
            inodes());
  Scan scan = openDifference(active_, snapshot_);
  EXPECT_EQ("last last@snap reused", changedEntries(active_, scan, 256));
  EXPECT_EQ(0, kest_same_file(openInode(active_, one).get(), openInode(snapshot_, one).get()));
  ino_t stays = tree_.inode("stays");
  EXPECT_EQ(1, kest_same_file(openInode(active_, stays).get(), openInode(snapshot_, stays).get()));
  EXPECT_EQ(nullptr, kest_iopen64(active_.get(), two, 0, nullptr, nullptr));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(Difference, UnitesBothTreesAfterARollback) {
  tree_.file("base");
  tree_.dirs("dir");
  tree_.file("dir/common");
  snapshot("first");
  tree_.file("dir/later");
  tree_.remove("dir/common");
  tree_.append("base", "later");
  ino_t later = tree_.inode("dir/later");
  fs_.snapshot("data", "snaps/second");
  // Roll back: the fileset is now a snapshot itself, and the second snapshot its cousin.
  fs_.snapshot("snaps/first", "rolled", false);
  tree_ = TreeBuilder(fs_.path("rolled"));
  tree_.file("own");
  active_ = openHandle(fs_.mountPoint(), "rolled");
  snapshot_ = openHandle(fs_.mountPoint(), "rolled", "second");
  // "own" may have the number of "later": then one number stands for two files.
  ASSERT_EQ(later, tree_.inode("own"));
  EXPECT_EQ(KEST_DI_ACTIVE | KEST_DI_SNAPSHOT | KEST_DI_REPLACED,
            kest_idifference(openDifference(active_, snapshot_).get(), later));
  expect(".");
  expect("base");
  expect("dir");
  expect("dir/common");  // the snapshot's history deleted it: only the fileset has it
  expect("own");
  EXPECT_EQ(expected(), inodes());
  Scan scan = openDifference(active_, snapshot_);
  EXPECT_EQ("common later@snap", changedEntries(active_, scan, tree_.inode("dir")));
  EXPECT_EQ("own", changedEntries(active_, scan, 256));
  snapshot_ = openHandle(fs_.mountPoint(), "rolled", "first");
  EXPECT_EQ("256 " + std::to_string(tree_.inode("own")), inodes());
  // And forward again, on the first line.
  active_ = openHandle(fs_.mountPoint(), "data");
  snapshot_ = openHandle(fs_.mountPoint(), "data", "second");
  EXPECT_EQ("", inodes());
}

TEST_F(Difference, MaximumCoversBothTrees) {
  tree_.file("a");
  for (int i = 0; i < 2000; ++i) tree_.file("f" + std::to_string(i));
  ino_t last = tree_.inode("f1999");
  snapshot();
  uint64_t max_ino = 0;
  for (int i = 0; i < 2000; ++i) tree_.remove("f" + std::to_string(i));
  fs_.commit();
  openDifference(active_, snapshot_, &max_ino);
  EXPECT_EQ(last, max_ino);
  tree_.file("new");
  fs_.commit();
  openDifference(active_, snapshot_, &max_ino);
  EXPECT_EQ(tree_.inode("new"), max_ino);
  openFull(snapshot_, &max_ino);
  EXPECT_EQ(tree_.inode("new"), max_ino);
  // The full scan knows every inode of the snapshot, in order.
  std::string all = "256";
  for (ino_t ino = 257; ino <= last; ++ino) all += " " + std::to_string(ino);
  EXPECT_EQ(all, inodesOf(openFull(snapshot_)));
  Scan full = openFull(snapshot_);
  const kest_iattr64_t *attr;
  ASSERT_EQ(0, kest_stat_inode64(full.get(), last, last + 100, &attr));
  ASSERT_NE(nullptr, attr);
  EXPECT_EQ(last, attr->ia_inode);
  ASSERT_EQ(0, kest_stat_inode64(full.get(), last + 1, UINT64_MAX, &attr));
  EXPECT_EQ(nullptr, attr);
  // The fileset's own full scan answers what is so now, committed or not.
  Scan live = openFull(active_);
  tree_.chmod("a", 0611);
  ASSERT_EQ(0, kest_stat_inode64(live.get(), tree_.inode("a"), tree_.inode("a") + 1, &attr));
  ASSERT_NE(nullptr, attr);
  EXPECT_EQ(S_IFREG | 0611u, attr->ia_mode);
}

}  // namespace
