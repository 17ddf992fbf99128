// Restores a CephFS directory from a snapshot: files, links, attributes, layouts, directories that
// moved, and inodes that the servers have forgotten.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "scenario/fset_fixture.h"
#include "support/ceph_cluster.h"
#include "support/descriptor.h"
#include "support/loop_btrfs.h"
#include "support/restore_run.h"
#include "support/survival.h"
#include "support/tree_builder.h"
#include "support/tree_fingerprint.h"

using namespace testsupport;
using scenario::fsetJson;
using scenario::Json;
using scenario::runFset;

namespace {

constexpr char kLayout[] = "stripe_unit=65536 stripe_count=2 object_size=131072 pool=data";
constexpr double kSeconds = 250;

class CephRestore : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = std::make_unique<CephCluster>(); }
  static void TearDownTestSuite() { cluster_.reset(); }

  void SetUp() override {
    fileset_ = "set" + std::to_string(++number_);
    ASSERT_EQ(mkdir(cluster_->path(fileset_).c_str(), 0755), 0);
    tree_ = std::make_unique<TreeBuilder>(cluster_->path(fileset_));
  }
  void TearDown() override { tree_.reset(); }

  RunResult run(const std::string &snapshot) {
    return runRestore(cluster_->mountPoint(), fileset_, snapshot, {"-m", "2"},
                      {.timeoutSeconds = kSeconds});
  }

  void expectRestored(const std::string &snapshot) {
    const TreePrint want = fingerprint(snapshot);
    ASSERT_NE(joined(compare(want, fingerprint(tree_->root()))), "") << "nothing has changed";
    const RunResult result = run("snap");
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(result.processesLeft, 0);
    EXPECT_EQ(joined(compare(want, fingerprint(tree_->root()))), "") << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(snapshot))), "") << "the snapshot itself changed";
    const RunResult compared =
        runProgram({cluster_->mountPoint(), "-j", fileset_, "-o", "snap"},
                   {.program = "/usr/qtx/kest/bin/fsetcompare", .timeoutSeconds = kSeconds});
    EXPECT_EQ(compared.exitStatus, 0) << compared.describe();
  }

  static std::unique_ptr<CephCluster> cluster_;
  static int number_;
  std::string fileset_;
  std::unique_ptr<TreeBuilder> tree_;
};

std::unique_ptr<CephCluster> CephRestore::cluster_;
int CephRestore::number_ = 0;

TEST_F(CephRestore, EverythingComesBack) {
  TreeBuilder &t = *tree_;
  for (const char *dir : {"d/sub", "e", "p/q", "gone/deep", "one", "other/in"}) t.dirs(dir);
  for (const char *file : {"a", "b", "c", "d/f", "d/sub/f", "gone/deep/f", "one/f", "other/in/f"})
    t.file(file, std::string("the contents of ") + file);
  t.big("large", 9 << 20, 1);
  t.sparse("sparse", 32 << 20, {0, 20 << 20});
  t.link("a", "e/a2");
  t.link("c", "d/c2");
  t.symlink("target", "link");
  t.fifo("fifo");
  t.device("device", S_IFCHR, 4, 1);
  t.setXattr("b", "user.colour", "blue");
  t.setXattr("b", "trusted.secret", "x");
  t.setXattr("c", kAccessAcl, aclForUser(7, 6));
  t.setXattr("d", kDefaultAcl, aclForUser(8, 5));
  t.file("striped", "");
  t.setXattr("striped", "ceph.file.layout", kLayout);
  t.pattern("striped", 0, 500'000, 3);
  t.setXattr("p", "ceph.dir.layout", kLayout);
  t.chmod("d/f", 04751);
  t.chown("d/sub/f", 5, 6);
  t.mtime("large", 1'000'000'000, 123'456'789);
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");

  t.write("large", 5'000'000, "XX");
  t.write("sparse", 10 << 20, "data in a hole");
  t.write("striped", 200'000, "YY");
  t.truncate("a", 3);
  t.remove("c");
  t.link("a", "third");
  t.removeTree("gone");
  t.remove("link");
  t.remove("fifo");
  t.remove("device");
  t.removeXattr("b", "user.colour");
  t.setXattr("b", "user.other", "new");
  t.removeXattr("d", kDefaultAcl);
  t.removeXattr("p", "ceph.dir.layout");
  t.chmod("d/f", 0600);
  t.chown("d/sub/f", 1, 1);
  t.rename("d", "p/q/moved");
  t.rename("one", "between");
  t.rename("other", "one");
  t.rename("between", "other");
  t.rename("b", "e/elsewhere");
  t.file("b", "somebody else's");
  t.dirs("new/in");
  t.file("new/in/f", "n");
  expectRestored(snapshot);
}

// A metadata server that was restarted no longer knows the number of a deleted inode.
TEST_F(CephRestore, DeletedInodesAreReachedAfterARestart) {
  TreeBuilder &t = *tree_;
  t.dirs("gone/deep/er");
  for (const char *file : {"gone/f", "gone/deep/f", "gone/deep/er/f", "f"}) t.file(file, file);
  t.symlink("somewhere", "gone/link");
  t.setXattr("f", "user.a", "b");
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");
  t.removeTree("gone");
  t.remove("f");
  t.file("kept", "k");
  cluster_->restartMds();
  expectRestored(snapshot);
}

TEST_F(CephRestore, PassesOverOldDirectoriesOnlyWhereAsked) {
  constexpr char kMargin[] = "FSETRESTORE_RCTIME_MARGIN", kSaid[] = "Passed over without comparing: ";
  TreeBuilder &t = *tree_;
  t.dirs("old/below");
  t.file("old/below/f", "old");
  t.dirs("changed/below");
  t.file("changed/below/f", "old");
  sleep(3);  // seconds are compared
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");
  const TreePrint want = fingerprint(snapshot);
  // The margin reaches back before everything; one second is enough for the old directory alone.
  const std::pair<const char *, bool> cases[] = {
      {"", false}, {"1x", false}, {"1000", false}, {"1", true}};
  for (const auto &[margin, passes] : cases) {
    SCOPED_TRACE(margin);
    t.write("changed/below/f", 0, "new");
    runCommand("sync -f " + t.root());
    const auto changeTime = [&] {
      char text[64] = "";
      getxattr((t.root() + "/changed").c_str(), "ceph.dir.rctime", text, sizeof text - 1);
      return atoll(text);
    };
    struct stat st;
    ASSERT_EQ(stat((t.root() + "/changed/below/f").c_str(), &st), 0);
    ASSERT_TRUE(waitUntil([&] { return changeTime() >= st.st_ctim.tv_sec; }, 60)) << changeTime();
    RunOptions options{.timeoutSeconds = kSeconds};
    if (*margin != '\0') options.environment = {{kMargin, margin}};
    const RunResult result = runRestore(cluster_->mountPoint(), fileset_, "snap", {"-m", "2"}, options);
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(result.err.find(kSaid) != std::string::npos, passes) << result.describe();
    if (passes) {
      EXPECT_NE(result.err.find(std::string(kSaid) + "1 "), std::string::npos) << result.err;
    }
    EXPECT_EQ(joined(compare(want, fingerprint(t.root()))), "") << result.describe();
  }
}

// The names outside belong to somebody else: they, and what they mean, stay as they are.
TEST_F(CephRestore, NamesOutsideAreLeftAlone) {
  TreeBuilder &t = *tree_;
  const std::string outside = cluster_->path("outside");
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  const char *names[] = {"kept", "removed", "gone", "one of two"};
  for (const char *name : names) {
    t.file(name, "the first contents");
    ASSERT_EQ(::link((t.root() + "/" + name).c_str(), (outside + "/" + name).c_str()), 0);
  }
  t.link("one of two", "second");
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");
  t.write("kept", 0, "another");
  for (const char *name : {"removed", "gone", "second"}) t.remove(name);
  ASSERT_EQ(unlink((outside + "/gone").c_str()), 0);
  const RunResult result = run("snap");
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  for (const char *name : {"kept", "removed", "gone", "one of two", "second"})
    EXPECT_EQ(readAll(t.root() + "/" + name), "the first contents") << name << result.describe();
  EXPECT_EQ(readAll(outside + "/removed"), "the first contents");
  EXPECT_EQ(t.inode("one of two"), t.inode("second"));
  struct stat st;
  ASSERT_EQ(stat((outside + "/one of two").c_str(), &st), 0);
  EXPECT_EQ(st.st_ino, t.inode("second"));
  ASSERT_EQ(stat((outside + "/removed").c_str(), &st), 0);
  EXPECT_NE(st.st_ino, t.inode("removed"));
  EXPECT_NE(result.err.find("/removed had names outside of the fileset"), std::string::npos)
      << result.describe();
  EXPECT_EQ(result.err.find("kept had names"), std::string::npos) << result.describe();
}

TEST_F(CephRestore, AnotherClientAtWorkLosesNothing) {
  TreeBuilder &t = *tree_;
  const std::string other = "/mnt/second";
  runCommand("mkdir -p " + other + " && ceph-fuse -c $CEPH_CONF --pid-file= " + other +
             " > /dev/null 2>&1");
  for (int i = 0; i < 8; ++i) t.big("f" + std::to_string(i), 300'000, 1);
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");
  const TreePrint want = fingerprint(snapshot);
  TreeBuilder second(other + "/" + fileset_);
  std::vector<Descriptor> open_files;
  for (int i = 0; i < 8; ++i) {
    const std::string path = second.root() + "/f" + std::to_string(i);
    open_files.emplace_back(open(path.c_str(), O_RDWR | O_CLOEXEC));
    const std::string text(100'000, 'x');  // nobody but this client knows of it yet
    ASSERT_EQ(pwrite(open_files.back().get(), text.data(), text.size(), 150'000), 100'000);
  }
  const RunResult result = run("snap");
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(want, fingerprint(t.root()))), "") << result.describe();
  // The client sees the restored data, and its next write is one change among them.
  ASSERT_EQ(pwrite(open_files[3].get(), "later", 5, 7), 5);
  open_files.clear();
  runCommand("sync -f " + second.root());
  std::string text = readAll(snapshot + "/f3");
  text.replace(7, 5, "later");
  // Another mount may still have the pages of before, a new snapshot has what the servers have.
  EXPECT_TRUE(readAll(second.root() + "/f3") == text);
  EXPECT_TRUE(readAll(cluster_->takeSnapshot(fileset_, "after") + "/f3") == text);
  runCommand("umount -l " + other);
}

// Builds a tree whose restore takes some seconds and has work in every phase.
void buildMuch(TreeBuilder &t) {
  for (int i = 0; i < 12; ++i) {
    const std::string dir = "d" + std::to_string(i);
    t.dirs(dir + "/below");
    for (int j = 0; j < 12; ++j) t.big(dir + "/f" + std::to_string(j), 5000, 1);
    t.file(dir + "/below/f", "text");
    t.link(dir + "/below/f", dir + "/link");
  }
  t.big("large", 9 << 20, 2);
}

void wreckMuch(TreeBuilder &t) {
  for (int i = 0; i < 12; ++i) {
    const std::string dir = "d" + std::to_string(i);
    if (i < 6) {
      t.removeTree(dir);
    } else {
      for (int j = 0; j < 12; ++j) t.write(dir + "/f" + std::to_string(j), 100, "changed");
      t.rename(dir + "/below", "moved" + std::to_string(i));
      t.remove(dir + "/link");
    }
    t.file("new" + std::to_string(i));
  }
  t.write("large", 5'000'000, "changed");
}

constexpr const char *kStages[] = {"traverseCommonDir",      "start, phase 3", "start, phase 51",
                                   "doFinalDirMove: moving", "start, phase 8", "start, phase 6"};

class CephFaults : public CephRestore {
 protected:
  void prepare() {
    buildMuch(*tree_);
    snapshot_ = cluster_->takeSnapshot(fileset_, "snap");
    wreckMuch(*tree_);
  }
  std::unique_ptr<Running> start(const std::string &device = "") {
    return std::make_unique<Running>(
        std::vector<std::string>{device.empty() ? cluster_->mountPoint() : device, "-j", fileset_, "-o",
                                 "snap", "-m", "2", "-B", "4"});
  }
  // Returns false if the run ended before it was seen in that stage.
  bool reach(Running &run, const std::string &stage) {
    const auto begun = [&] {
      for (const auto &entry : std::filesystem::directory_iterator(tree_->root()))
        if (entry.path().filename().string().starts_with("RestoreTemp") &&
            readAll(entry.path().string() + "/ErrorLog").find(stage) != std::string::npos)
          return true;
      return false;
    };
    return waitUntil([&] { return run.ended() || begun(); }, kSeconds) && !run.ended();
  }
  int end(Running &run) {
    EXPECT_TRUE(waitUntil([&] { return run.ended(); }, kSeconds)) << run.said();
    return run.exitStatus();
  }
  void expectEqual(const std::string &said) {
    EXPECT_EQ(joined(compare(fingerprint(snapshot_), fingerprint(tree_->root()))), "") << said;
  }
  void expectFinishedByNextRun() {
    const RunResult result = run("snap");
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    expectEqual(result.describe());
    EXPECT_EQ(access((tree_->root() + "/.fsetrestore.lock").c_str(), F_OK), -1);
  }
  // Evicts the clients that are not mounts, which are those of the restore.
  void evictRestore() {
    runCommand(
        "ceph -c $CEPH_CONF tell mds.m client ls 2> /dev/null | python3 -c '"
        "import json, subprocess, sys\n"
        "for one in json.load(sys.stdin):\n"
        "  if \"mount_point\" not in one[\"client_metadata\"] or "
        "one[\"client_metadata\"][\"mount_point\"] == \"\":\n"
        "    subprocess.run([\"ceph\", \"tell\", \"mds.m\", \"client\", \"evict\", \"id=%d\" % "
        "one[\"id\"]], stderr=subprocess.DEVNULL)'");
  }

  std::string snapshot_;
};

TEST_F(CephFaults, ASecondRunIsRefused) {
  const std::string other = "/mnt/other";
  runCommand("mkdir -p " + other + " && ceph-fuse -c $CEPH_CONF --pid-file= " + other +
             " > /dev/null 2>&1");
  prepare();
  auto first = start();
  ASSERT_TRUE(reach(*first, kStages[0])) << first->said();
  auto second = start(other);  // as from another node
  EXPECT_EQ(end(*second), 1);
  EXPECT_NE(second->said().find("Another restore of the fileset " + fileset_ + " is running"),
            std::string::npos)
      << second->said();
  EXPECT_FALSE(first->ended());
  EXPECT_EQ(end(*first), 0) << first->said();
  expectEqual(first->said());
  runCommand("umount -l " + other);
  expectFinishedByNextRun();
}

TEST_F(CephFaults, TheServerIsStartedAgainOnTheWay) {
  for (const char *stage : {kStages[0], kStages[2], kStages[5]}) {
    SCOPED_TRACE(stage);
    TearDown();
    SetUp();
    prepare();
    auto run = start();
    ASSERT_TRUE(reach(*run, stage)) << run->said();
    cluster_->restartMds();
    EXPECT_EQ(end(*run), 0) << run->said();
    expectEqual(run->said());
  }
}

// An evicted client loses what it had not written back. A run that lost anything must not succeed.
TEST_F(CephFaults, ClientsThatAreShutOutEndTheRun) {
  prepare();
  for (const char *stage : {kStages[1], kStages[2]}) {
    SCOPED_TRACE(stage);
    auto run = start();
    ASSERT_TRUE(reach(*run, stage)) << run->said();
    evictRestore();
    EXPECT_NE(end(*run), 0) << run->said();
    EXPECT_FALSE(run->said().empty());
  }
  expectFinishedByNextRun();
}

TEST_F(CephFaults, KilledRunsAreFinishedByTheNext) {
  prepare();
  for (const char *stage : {kStages[0], kStages[1], kStages[2]}) {
    SCOPED_TRACE(stage);
    auto run = start();
    ASSERT_TRUE(reach(*run, stage)) << run->said();
    EXPECT_TRUE(run->endAll());
    evictRestore();  // else the servers wait for the dead clients, a minute for each that is in the way
  }
  expectFinishedByNextRun();
}

TEST_F(CephFaults, AQuotaThatIsUsedUpIsNamed) {
  prepare();
  // The quota applies to the lists of the run, but not to what it restores.
  runCommand("setfattr -n ceph.quota.max_files -v 5 " + tree_->root());
  const RunResult result = run("snap");
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find("There is not enough free inode or disk space"), std::string::npos)
      << result.describe();
  runCommand("setfattr -n ceph.quota.max_files -v 0 " + tree_->root());
  expectFinishedByNextRun();
}

TEST_F(CephFaults, AFullPoolIsNamed) {
  const auto full = [] {
    return cluster_->tell("osd pool ls detail").find(",full") != std::string::npos;
  };
  prepare();
  cluster_->tell("osd set-nearfull-ratio 0.0005");
  cluster_->tell("osd set-backfillfull-ratio 0.0006");
  cluster_->tell("osd set-full-ratio 0.0007");
  EXPECT_TRUE(waitUntil(full, 60)) << cluster_->tell("osd pool ls detail");
  const RunResult result = run("snap");
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find("There is not enough free inode or disk space"), std::string::npos)
      << result.describe();
  cluster_->tell("osd set-full-ratio 0.95");
  cluster_->tell("osd set-backfillfull-ratio 0.90");
  cluster_->tell("osd set-nearfull-ratio 0.85");
  EXPECT_TRUE(waitUntil([&] { return !full(); }, 60));
  expectFinishedByNextRun();
}

TEST_F(CephRestore, NamesWhatIsMissing) {
  tree_->file("f", "x");
  cluster_->takeSnapshot(fileset_, "there");
  cluster_->takeSnapshot("", "above");
  const std::string shown = "_above_1";
  const std::pair<std::string, std::string> cases[] = {
      {"snap", "has no snapshot snap; there are there"},
      {shown, shown + " is no snapshot of " + fileset_ + " alone: it is above of the directory /"}};
  for (const auto &[name, said] : cases) {
    const RunResult result = run(name);
    EXPECT_NE(result.exitStatus, 0);
    EXPECT_NE((result.err + result.out).find(said), std::string::npos) << result.describe();
  }
  cluster_->removeSnapshot("", "above");
}

// Returns the commands of a section of the README: the lines of its blocks up to a column of remarks.
std::vector<std::string> readmeCommands(const std::string &heading) {
  std::istringstream lines(readAll(README));
  std::vector<std::string> commands;
  bool here = false, block = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("## ")) here = line == "## " + heading;
    if (!here) continue;
    if (line == "```") block = !block;
    if (block && line != "```") commands.push_back(line.substr(0, line.find("  ")));
  }
  return commands;
}

TEST_F(CephRestore, TheCommandsOfTheReadme) {
  const std::string alpha = cluster_->path("projects/alpha");
  cluster_->makeFileset("projects/alpha");
  TreeBuilder t(alpha);
  t.dirs("d/e");
  t.big("d/e/f", 5000, 1);
  t.file("g", "text");
  const TreePrint want = fingerprint(cluster_->takeSnapshot("projects/alpha", "monday"));
  awaitClockTick();
  t.removeTree("d");
  t.write("g", 0, "other");
  const TreePrint wrecked = fingerprint(alpha);

  const std::vector<std::string> commands = readmeCommands("A directory of a CephFS");
  ASSERT_EQ(commands.size(), 6u);
  // What the tree is after each of them.
  const TreePrint *after[] = {&wrecked, &want, &wrecked, &wrecked, &wrecked, &want};
  for (size_t at = 0; at < commands.size(); ++at) {
    runCommand("cd / && echo y | PATH=/usr/qtx/kest/bin:$PATH script -qec '" + commands[at] +
               "; echo status $?' /dev/null > /mnt/typescript 2>&1");
    const std::string said = readAll("/mnt/typescript");
    EXPECT_NE(said.find("status 0"), std::string::npos) << commands[at] << "\n" << said;
    EXPECT_EQ(joined(compare(*after[at], fingerprint(alpha))), "") << commands[at] << "\n" << said;
  }
  runCommand("rmdir " + alpha + "/.snap/*");
}

// Which directory a path means, and which snapshots are its own.
TEST_F(CephRestore, FsetFindsTheDirectoryWithSnapshots) {
  TreeBuilder &t = *tree_;
  t.dirs("in/ner/most");
  t.dirs("plain/deep");
  t.file("in/f", "before");
  cluster_->takeSnapshot("", "above");
  cluster_->takeSnapshot(fileset_, "outer");
  cluster_->takeSnapshot(fileset_ + "/in", "inner");
  awaitClockTick();
  t.write("in/f", 0, "after!");
  const std::string top = cluster_->mountPoint(), root = t.root(), inner = fileset_ + "/in";
  const auto found = [](const std::vector<std::string> &place, const std::string &directory = "/") {
    std::vector<std::string> arguments{"list"};
    arguments.insert(arguments.end(), place.begin(), place.end());
    const Json list = fsetJson(arguments, 0, directory);
    std::string text = list["fileset"]["path"];
    for (const Json &one : list["snapshots"]) text += " " + std::string(one["name"]);
    return text;
  };
  EXPECT_EQ(found({root}), fileset_ + " outer");
  EXPECT_EQ(found({root + "/plain/deep"}), fileset_ + " outer");
  EXPECT_EQ(found({root + "/in/f"}), inner + " inner");
  EXPECT_EQ(found({}, root + "/in/ner/most"), inner + " inner");
  EXPECT_EQ(found({root + "/.snap/outer/in/ner"}), fileset_ + " outer");
  EXPECT_EQ(found({"--fileset", "/" + inner + "/", top}), inner + " inner");
  runCommand("mkdir -p /mnt/bound && mount --bind " + root + " /mnt/bound");
  EXPECT_EQ(found({"/mnt/bound/in"}), inner + " inner");
  EXPECT_EQ(fsetJson({"list", root})["fileset"]["mounts"].size(), 2u);
  runCommand("umount /mnt/bound");
  runCommand("mkdir " + top + "/without");
  EXPECT_EQ(found({top + "/without"}), "without");
  EXPECT_EQ(runFset({"undo", root, "--yes"}).exitStatus, 1);

  const std::pair<std::vector<std::string>, std::string> refused[] = {
      {{"list", top}, "is the root of a mount"},
      {{"list", "--fileset", "/", top}, "is the root of a mount"},
      {{"list", "--fileset", "nosuch", top}, "no fileset nosuch"},
      {{"diff", root, "_above_1"}, "has no snapshot _above_1"}};
  for (const auto &[arguments, said] : refused) {
    const RunResult result = runFset(arguments);
    EXPECT_EQ(result.exitStatus, 2) << result.describe();
    EXPECT_NE(result.err.find(said), std::string::npos) << result.describe();
  }
  // In a mount of a part the path in of the file system is another directory.
  runCommand("mkdir " + top + "/in");
  const std::string part = "/mnt/part";
  runCommand("mkdir -p " + part + " && ceph-fuse -c $CEPH_CONF --pid-file= -r /" + fileset_ + " " +
             part + " > /dev/null 2>&1");
  EXPECT_NE(runFset({"list", part + "/in"}).err.find("name the directory with --fileset"),
            std::string::npos);
  runCommand("umount " + part);

  // Restored is the directory that was found, and nothing around it. Who works elsewhere is not named.
  t.file("plain/new", "new");
  Running elsewhere({"60"}, {.program = "/bin/sleep", .workingDirectory = root + "/plain"});
  Running there({"60"}, {.program = "/bin/sleep", .workingDirectory = root + "/in/ner"});
  const Json restored = fsetJson({"restore", root + "/in/ner", root + "/in/.snap/inner", "--yes"});
  EXPECT_EQ(restored["differences_left"], 0) << restored.dump(2);
  EXPECT_EQ(restored["undo"], "fset undo " + root + "/in");
  ASSERT_EQ(restored["users"].size(), 1u) << restored.dump(2);
  EXPECT_EQ(restored["users"][0]["pid"], there.pid());
  EXPECT_EQ(t.read("in/f"), "before");
  EXPECT_TRUE(t.exists("plain/new"));
  const Json undone = fsetJson({"undo", root + "/in", "--yes"});
  EXPECT_EQ(t.read("in/f"), "after!");
  const std::string again = undone["undo"];  // the command that returns to the snapshot
  runCommand("PATH=/usr/qtx/kest/bin:$PATH " + again + " --yes > /dev/null");
  EXPECT_EQ(t.read("in/f"), "before");
  EXPECT_EQ(found({root}), fileset_ + " outer");  // the backups are the inner directory's
  runCommand("rmdir " + root + "/in/.snap/[!_]* " + root + "/.snap/outer " + top + "/.snap/above");
}

// The small commands name directories and snapshots like fset.
TEST_F(CephRestore, SmallCommandsKnowFilesetsAndSnapshots) {
  const std::string device = cluster_->mountPoint();
  const auto run = [&](const std::string &command, const std::vector<std::string> &arguments) {
    return runProgram(arguments, {.program = "/usr/qtx/kest/bin/" + command});
  };
  tree_->file("f", "x");
  cluster_->takeSnapshot(fileset_, "with blank");
  cluster_->takeSnapshot("", "above");
  RunResult result = run("ktlssnapshot", {device, "-j", fileset_});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.out.find("\nwith\\040blank "), std::string::npos) << result.describe();
  EXPECT_EQ(result.out.find("above"), std::string::npos) << result.describe();
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 3) << result.describe();
  result = run("ktlsfileset", {device, fileset_, "-Y"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.out.find(":rw:yes:" + tree_->root() + ":1:-\n"), std::string::npos)
      << result.describe();
  for (const char *word : {"suspend", "resume"})
    EXPECT_EQ(run("ktfsctl", {device, word}).exitStatus, 0) << word;
  EXPECT_NE(run("ktlsfileset", {device, "nosuch", "-Y"}).exitStatus, 0);
  EXPECT_NE(run("ktlssnapshot", {device, "-j", "nosuch"}).exitStatus, 0);
  runCommand("rmdir '" + tree_->root() + "/.snap/with blank' " + device + "/.snap/above");
}

}  // namespace
