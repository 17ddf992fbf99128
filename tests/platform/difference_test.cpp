// Which inodes and entries the difference scan reports, on a real btrfs.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>

#include "platform/kest_reader.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;
using testsupport::TreeBuilder;

class Difference : public LibraryTest {
 protected:
  // Returns the numbers of objects in the form of inodesOf.
  std::string numbers(const std::vector<std::string> &paths, const std::vector<ino_t> &gone = {}) {
    std::map<ino_t, std::string> sorted;
    for (const std::string &path : paths) sorted[inode(path)] = std::to_string(inode(path));
    for (ino_t ino : gone) sorted[ino] = "-" + std::to_string(ino);
    std::string text;
    for (const auto &[ino, number] : sorted) text += (text.empty() ? "" : " ") + number;
    return text;
  }
  std::string inodes() { return inodesOf(openDifference(active_, snapshot_)); }
  std::string changes(const Scan &scan, const std::string &dir) {
    return changedEntries(active_, scan, inode(dir));
  }
};

TEST_F(Difference, ReportsExactlyWhatChangedInOrder) {
  for (int i = 0; i < 300; ++i) tree_->file("quiet" + std::to_string(i), "quiet");
  tree_->dirs("work/deep/deeper");
  for (const char *name : {"data", "mode", "xattr", "linked", "renamed", "read", "dropped", "held"})
    tree_->file(std::string("work/") + name, name);
  for (const char *name : {"deeper/one", "deeper/two", "kept"})
    tree_->file(std::string("work/deep/") + name, name);
  tree_->dirs("moved/inside");
  tree_->file("moved/inside/child");
  tree_->fifo("work/pipe");
  snapshot();
  EXPECT_EQ("", inodes());

  std::vector<ino_t> gone;
  for (const char *path : {"work/deep", "work/deep/deeper", "work/deep/deeper/one",
                           "work/deep/deeper/two", "work/dropped", "work/held"})
    gone.push_back(inode(path));
  tree_->append("work/data", "more");
  tree_->chmod("work/mode", 0600);
  tree_->setXattr("work/xattr", "user.new", "value");
  tree_->link("work/linked", "work/second name");
  tree_->rename("work/renamed", "work/new name");
  tree_->rename("moved", "moved away");
  tree_->chmod("work/pipe", 0600);
  tree_->rename("work/deep/kept", "work/kept");
  tree_->removeTree("work/deep");
  tree_->remove("work/dropped");
  const Descriptor held(::open(at("work/held").c_str(), O_RDONLY | O_CLOEXEC));
  tree_->remove("work/held");
  tree_->dirs("fresh/below");
  tree_->file("fresh/below/file");
  // A changed access time alone is no change.
  fs_->commit();
  const std::string before = timesOf(at("work/read"));
  testsupport::runCommand("cat " + at("work/read") + " > /dev/null");
  ASSERT_NE(before, timesOf(at("work/read")));
  EXPECT_EQ(
      numbers({".", "work", "work/data", "work/mode", "work/xattr", "work/linked", "work/new name",
               "work/pipe", "work/kept", "moved away", "fresh", "fresh/below", "fresh/below/file"},
              gone),
      inodes());

  Scan scan = openDifference(active_, snapshot_);
  const kest_iattr64_t *attr;
  for (ino_t ino : {inode("work/read"), gone[0]}) {
    EXPECT_EQ(0, kest_stat_inode64(scan.get(), ino, ino + 1, &attr));
    EXPECT_EQ(nullptr, attr);
  }
  EXPECT_EQ(0, kest_stat_inode64(scan.get(), inode("work/mode"), inode("work/mode") + 1, &attr));
  ASSERT_NE(nullptr, attr);
  EXPECT_EQ(S_IFREG | 0600u, attr->ia_mode);
}

TEST_F(Difference, LeavesOutWhatWasPutBack) {
  for (const char *name : {"data", "mode", "renamed", "xattr", "deleted"})
    tree_->file(name, "original");
  tree_->dirs("folder");
  tree_->file("folder/child");
  snapshot();
  const ino_t deleted = inode("deleted");
  std::map<std::string, timespec> times;
  for (const char *name : {"data", "folder", ""}) times[name] = statOf(at(name)).st_mtim;
  auto putBack = [&](const char *name) { tree_->mtime(name, times[name].tv_sec, times[name].tv_nsec); };

  tree_->write("data", 0, "ORIGINAL");
  tree_->chmod("mode", 0600);
  tree_->rename("renamed", "elsewhere");
  tree_->setXattr("xattr", "user.a", "1");
  tree_->link("folder/child", "folder/again");
  tree_->remove("deleted");
  fs_->commit();
  tree_->write("data", 0, "original");
  tree_->chmod("mode", 0644);
  tree_->rename("elsewhere", "renamed");
  tree_->removeXattr("xattr", "user.a");
  tree_->remove("folder/again");
  for (const char *name : {"data", "folder", ""}) putBack(name);
  // Only what cannot come back is left: a deleted inode, and its directory, which lacks an entry.
  EXPECT_EQ(numbers({"."}, {deleted}), inodes());
  // A changed value with equal times is still a change.
  tree_->write("data", 0, "0riginal");
  putBack("data");
  EXPECT_EQ(numbers({".", "data"}, {deleted}), inodes());
}

TEST_F(Difference, ListsChangedEntries) {
  for (int i = 0; i < 1000; ++i) tree_->file("quiet" + std::to_string(i));
  tree_->dirs("d");
  tree_->dirs("untouched");
  for (const char *name : {"d/a", "d/b", "d/c", "d/e", "d/gone", "d/same", "untouched/file"})
    tree_->file(name, name);
  snapshot();
  ino_t c = inode("d/c");
  tree_->exchange("d/a", "d/b");
  tree_->remove("d/gone");
  tree_->file("d/new");
  tree_->remove("d/c");
  tree_->file("d/c", "another");
  tree_->rename("d/e", "d/f");
  tree_->rename("d/f", "d/e");  // the old name with a new index
  tree_->dirs("d/fresh");
  tree_->file("d/fresh/x");
  tree_->append("untouched/file", "!");
  Scan scan = openDifference(active_, snapshot_);
  ASSERT_NE(c, inode("d/c"));
  EXPECT_EQ("a a@snap b b@snap c c@snap fresh gone@snap new", changes(scan, "d"));
  EXPECT_EQ("x", changes(scan, "d/fresh"));
  EXPECT_EQ("", changes(scan, "untouched"));
  EXPECT_EQ("", changes(scan, "."));

  // Both sides are reported.
  Inode dir = open("d");
  const kest_direntx64_t *entry;
  int seen = 0;
  while (kest_ireaddirx64(dir.get(), scan.get(), &entry) == 0 && entry != nullptr) {
    if (std::string(entry->d_name) != "c") continue;
    bool old = (entry->d_type & KEST_DT_SNAP) != 0;
    EXPECT_EQ(old ? c : inode("d/c"), entry->d_ino);
    EXPECT_EQ(DT_REG, entry->d_type & 0xf);
    ++seen;
  }
  EXPECT_EQ(2, seen);
}

// Copies stand for objects that a restore made again.
TEST_F(Difference, LeavesOutTwins) {
  tree_->dirs("made/again/deep");
  tree_->dirs("keep");
  tree_->file("plain", "text");
  tree_->setXattr("plain", "user.a", "1");
  tree_->file("made/again/deep/f", "text");
  tree_->symlink("plain", "made/again/link");
  tree_->link("made/again/deep/f", "made/again/g");
  tree_->link("made/again/deep/f", "keep/h");
  tree_->file("made/again/survivor", "text");
  const std::string snap = snapshot();
  std::map<std::string, ino_t> then;
  for (const char *path : {"plain", "made", "made/again/deep/f", "made/again/survivor"})
    then[path] = inode(path);
  const auto run = [&](const std::string &command) {
    testsupport::runCommand("cd '" + root() + "' && snap='" + snap + "' && " + command);
  };
  const std::string copy_plain = "rm plain && cp -a \"$snap/plain\" .";
  run("mv made/again/survivor aside && rm -r made keep && cp -a \"$snap/made\" \"$snap/keep\" . && "
      "mv aside made/again/survivor && touch -r \"$snap/made/again\" made/again && " +
      copy_plain);
  Scan scan = openDifference(active_, snapshot_);
  EXPECT_EQ(numbers({"."}), inodesOf(scan));
  EXPECT_EQ("", changes(scan, "."));
  EXPECT_EQ("", leadingEntries(active_, scan, inode(".")));
  for (const auto &[path, ino] : then) {
    uint64_t twin = 1;
    EXPECT_EQ(0, kest_twin(scan.get(), ino, &twin));
    EXPECT_EQ(ino == inode(path) ? 0 : inode(path), twin) << path;
    EXPECT_EQ(0, kest_leads_to_change(scan.get(), inode(path))) << path;
  }
  // A difference in or below a directory ends the twins that depend on it.
  tree_->append("made/again/survivor", "!");
  EXPECT_EQ("keep keep@snap made made@snap", changes(openDifference(active_, snapshot_), "."));
  const std::function<void()> near_misses[] = {
      [&] { tree_->chmod("plain", 0600); }, [&] { tree_->setXattr("plain", "user.a", "2"); },
      [&] { run("touch -d @1 plain"); }, [&] { tree_->link("plain", "second"); },
      [&] { run("printf texT > plain && touch -r \"$snap/plain\" plain"); }};
  for (const auto &change : near_misses) {
    run(copy_plain);
    EXPECT_EQ("keep keep@snap made made@snap", changes(openDifference(active_, snapshot_), "."));
    change();
    const std::string found = changes(openDifference(active_, snapshot_), ".");
    EXPECT_NE(std::string::npos, found.find("plain plain@snap")) << found;
    run("rm -f second");
  }
}

TEST_F(Difference, LeadsToChangesAndJunctionsAlone) {
  for (const char *dir : {"quiet/q", "way/down/far", "moved/in", "links", "flags", "holds/junction"})
    tree_->dirs(dir);
  for (const char *file : {"quiet/q/f", "way/down/far/f", "way/down/far/g", "moved/in/f", "links/f"})
    tree_->file(file, "text");
  // More names in one directory than one item can hold.
  const auto linkName = [](int i) { return "links/" + std::string(120, 'n') + std::to_string(i); };
  for (int i = 0; i < 300; ++i) tree_->link("links/f", linkName(i));
  tree_->link("links/f", "way/link");
  tree_->dirs(".snapshots/1");
  tree_->file(".snapshots/1/info", "text");
  snapshot();
  tree_->append("way/down/far/f", "!");
  tree_->rename("moved", "quiet/moved");
  tree_->append("links/f", "!");
  tree_->chmod("flags", 0700);
  tree_->append(".snapshots/1/info", "!");
  fs_->createSubvolume(name_ + "/holds/junction/nested");
  fs_->snapshot(name_, name_ + "/.snapshots/1/kept");  // so .snapshots is left alone
  Scan scan = openDifference(active_, snapshot_);
  const auto leads = [&](const std::string &dir) { return leadingEntries(active_, scan, inode(dir)); };
  EXPECT_EQ("nested=", leads("holds/junction").substr(0, 7));
  const std::pair<const char *, const char *> expected[] = {{".", "quiet way links flags holds"},
                                                            {"quiet", "moved"},
                                                            {"way", "down link"},
                                                            {"way/down/far", "f"},
                                                            {"quiet/moved", ""},
                                                            {"flags", ""}};
  for (const auto &[dir, entries] : expected) EXPECT_EQ(entries, leads(dir)) << dir;
  const std::string links = leads("links");
  for (int i = 0; i < 300; ++i)
    ASSERT_NE(std::string::npos, (links + " ").find(linkName(i).substr(6) + " ")) << i;
  EXPECT_EQ(300, std::count(links.begin(), links.end(), ' '));
  for (const char *dir :
       {"quiet", "quiet/moved", "way", "way/down/far", "flags", "holds", "holds/junction"})
    EXPECT_EQ(1, kest_leads_to_change(scan.get(), inode(dir))) << dir;
  for (const char *dir :
       {"quiet/q", "quiet/moved/in", "way/down/far/g", ".snapshots", ".snapshots/1/info"})
    EXPECT_EQ(0, kest_leads_to_change(scan.get(), inode(dir))) << dir;
  const auto known = [&](const char *path) { return kest_idifference(scan.get(), inode(path)); };
  const int both = KEST_DI_ACTIVE | KEST_DI_SNAPSHOT;
  EXPECT_EQ(both | KEST_DI_LINKED, known("links/f"));
  EXPECT_EQ(both, known("way/down/far/f"));
  EXPECT_EQ(both | KEST_DI_DIR, known("flags"));
  EXPECT_EQ(both | KEST_DI_DIR | KEST_DI_ENTRIES, known("quiet"));
  EXPECT_EQ(0, known("way"));

  // A listing in progress takes later changes into account.
  Inode far = open("way/down/far");
  const ino_t gone = inode("way/down/far/f");
  tree_->rename("way/down/far/f", "elsewhere");
  tree_->file("way/down/far/f");
  const kest_direntx64_t *entry;
  ASSERT_EQ(0, kest_ireaddirc64(far.get(), scan.get(), &entry));
  EXPECT_EQ(nullptr, entry);
  EXPECT_EQ(1, kest_leads_to_change(scan.get(), gone));
}

TEST_F(Difference, TellsReusedNumbersApart) {
  tree_->file("stays");
  tree_->dirs("last");
  tree_->file("last/one", "1");
  tree_->file("last/two", "2");
  snapshot();
  ino_t dir = inode("last"), one = inode("last/one"), two = inode("last/two"), stays = inode("stays");
  tree_->removeTree("last");
  const std::string top = root();
  active_.reset();
  snapshot_.reset();
  tree_.reset();
  fs_->remount();
  tree_ = std::make_unique<TreeBuilder>(top);
  tree_->file("reused", "x");
  ASSERT_EQ(dir, inode("reused")) << "the file system did not give the number again";
  tree_->dirs("last");
  ASSERT_EQ(one, inode("last"));
  active_ = openHandle(fs_->mountPoint(), name_);
  snapshot_ = openHandle(fs_->mountPoint(), name_, ("snap of " + name_).c_str());
  EXPECT_EQ(numbers({".", "reused", "last"}, {two}), inodes());
  EXPECT_EQ("last last@snap reused", changes(openDifference(active_, snapshot_), "."));
  EXPECT_EQ(0, kest_same_file(open("last").get(), openInode(snapshot_, one).get()));
  EXPECT_EQ(1, kest_same_file(open("stays").get(), openInode(snapshot_, stays).get()));
  EXPECT_EQ(nullptr, kest_iopen64(active_.get(), two, 0, nullptr, nullptr));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(Difference, UnitesBothTreesAfterARollback) {
  tree_->file("base");
  tree_->dirs("dir");
  tree_->file("dir/common");
  snapshot("first");
  tree_->file("dir/later");
  tree_->remove("dir/common");
  tree_->append("base", "later");
  ino_t later = inode("dir/later");
  const std::string second = snapshot("second");
  EXPECT_EQ("", inodes());
  // Roll back: the fileset is now a snapshot itself, and the second snapshot its cousin.
  tree_ = std::make_unique<TreeBuilder>(fs_->snapshot("first of " + name_, "rolled", false));
  tree_->file("own");
  active_ = openHandle(fs_->mountPoint(), "rolled");
  snapshot_ = openHandle(fs_->mountPoint(), "rolled", ("second of " + name_).c_str());
  // "own" can have the number of "later", so that one number means two files.
  ASSERT_EQ(later, inode("own"));
  Scan scan = openDifference(active_, snapshot_);
  EXPECT_EQ(KEST_DI_ACTIVE | KEST_DI_SNAPSHOT | KEST_DI_REPLACED, kest_idifference(scan.get(), later));
  // The snapshot's history deleted dir/common, so only the fileset has it.
  EXPECT_EQ(numbers({".", "base", "dir", "dir/common", "own"}), inodes());
  EXPECT_EQ("common later@snap", changes(scan, "dir"));
  EXPECT_EQ("own", changes(scan, "."));
  // Two files of one number can each have a twin.
  testsupport::runCommand("cp -a '" + second + "/dir/later' '" + at("dir/later") + "'");
  scan = openDifference(active_, snapshot_);
  EXPECT_EQ(KEST_DI_ACTIVE, kest_idifference(scan.get(), later));
  EXPECT_EQ(0, kest_idifference(scan.get(), inode("dir/later")));
  EXPECT_EQ("common", changes(scan, "dir"));
}

TEST_F(Difference, MaximumCoversBothTrees) {
  tree_->file("a");
  for (int i = 0; i < 2000; ++i) tree_->file("f" + std::to_string(i));
  ino_t last = inode("f1999");
  snapshot();
  uint64_t max_ino = 0;
  for (int i = 0; i < 2000; ++i) tree_->remove("f" + std::to_string(i));
  fs_->commit();
  openDifference(active_, snapshot_, &max_ino);
  EXPECT_EQ(last, max_ino);
  tree_->file("new");
  fs_->commit();
  openDifference(active_, snapshot_, &max_ino);
  EXPECT_EQ(inode("new"), max_ino);
  // The full scan has every inode of the snapshot, in order.
  std::string all = "256";
  for (ino_t ino = 257; ino <= last; ++ino) all += " " + std::to_string(ino);
  EXPECT_EQ(all, inodesOf(openFull(snapshot_)));
  // That of the fileset reports the present state, committed or not.
  Scan live = openFull(active_);
  tree_->chmod("a", 0611);
  const kest_iattr64_t *attr;
  ASSERT_EQ(0, kest_stat_inode64(live.get(), inode("a"), inode("a") + 1, &attr));
  ASSERT_NE(nullptr, attr);
  EXPECT_EQ(S_IFREG | 0611u, attr->ia_mode);
  ASSERT_EQ(0, kest_stat_inode64(live.get(), inode("new") + 1, UINT64_MAX, &attr));
  EXPECT_EQ(nullptr, attr);
}

}  // namespace
