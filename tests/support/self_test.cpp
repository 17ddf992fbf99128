// The judge itself: it must find every single difference, and none between a tree and its snapshot.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "support/loop_btrfs.h"
#include "support/restore_run.h"
#include "support/tree_builder.h"
#include "support/tree_fingerprint.h"

using namespace testsupport;

namespace {

void buildEverything(TreeBuilder &t) {
  t.dirs("d/e");
  t.file("f", "some text");
  t.file("d/g", "some text");
  t.link("f", "d/f2");
  t.file("alone", "one");
  t.big("big", 300000, 1);
  t.sparse("sparse", 1 << 20, {0, 65536});
  t.file("zeros", std::string(8192, '\0'));
  t.symlink("target", "l");
  t.fifo("p");
  t.socket("s");
  t.device("c", S_IFCHR, 1, 3);
  t.device("b", S_IFBLK, 7, 300);
  t.file("empty");
  t.setXattr("f", "user.a", "1");
  t.setXattr("d", "trusted.b", "");
  t.setXattr("l", "trusted.c", "on a link");
  t.setXattr("f", kAccessAcl, aclForUser(1000, 6));
  t.setXattr("d", kDefaultAcl, aclForUser(1000, 7));
  t.chmod("d/g", 04755);
  t.setXattr("d/g", "security.capability", std::string("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20));
  t.mtime("d/e", -86400 * 365, 999999999);
  t.mtime("d/g", 1ll << 33, 1);
}

struct Difference {
  const char *expected;  // a part of the only line of the comparison
  std::function<void(TreeBuilder &)> change;
};

// mtimes of changed directories are put back, so that each line shows one difference.
const Difference kDifferences[] = {
    {"mode of d/g: want 4755, have 0755", [](TreeBuilder &t) { t.chmod("d/g", 0755); }},
    {"owner of alone: want 0, have 12", [](TreeBuilder &t) { t.chown("alone", 12, 0); }},
    {"group of l: want 0, have 13", [](TreeBuilder &t) { t.chown("l", 0, 13); }},
    {"user.a of f: want \"1\", have \"2\"", [](TreeBuilder &t) { t.setXattr("f", "user.a", "2"); }},
    {"user.a of f: want \"1\", have nothing", [](TreeBuilder &t) { t.removeXattr("f", "user.a"); }},
    {"trusted.b of d: want \"\", have nothing",
     [](TreeBuilder &t) { t.removeXattr("d", "trusted.b"); }},
    {"trusted.n of p: want nothing", [](TreeBuilder &t) { t.setXattr("p", "trusted.n", ""); }},
    {"trusted.c of l:", [](TreeBuilder &t) { t.setXattr("l", "trusted.c", "other"); }},
    {"security.capability of d/g:",
     [](TreeBuilder &t) { t.removeXattr("d/g", "security.capability"); }},
    {"posix_acl_access of f:",
     [](TreeBuilder &t) { t.setXattr("f", kAccessAcl, aclForUser(1000, 4)); }},
    {"posix_acl_default of d:", [](TreeBuilder &t) { t.removeXattr("d", kDefaultAcl); }},
    {"mtime of d/e: want -31536000.999999999, have -31536000.999999998",
     [](TreeBuilder &t) { t.mtime("d/e", -86400 * 365, 999999998); }},
    {"mtime of l:", [](TreeBuilder &t) { t.mtime("l", 77); }},
    {"mtime of the root:", [](TreeBuilder &t) { t.mtime("", 5); }},
    {"data of big differ: first at offset 250001",
     [](TreeBuilder &t) {
       struct stat st;
       ASSERT_EQ(lstat((t.root() + "/big").c_str(), &st), 0);
       t.write("big", 250001, std::string(1, static_cast<char>(~t.read("big")[250001])));
       t.mtime("big", st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
     }},
    {"data ranges of zeros: want [0,8192), have [4096,8192)",
     [](TreeBuilder &t) {
       struct stat st;
       ASSERT_EQ(lstat((t.root() + "/zeros").c_str(), &st), 0);
       t.punch("zeros", 0, 4096);
       t.mtime("zeros", st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
     }},
    {"size of sparse: want 1048576, have 1048577",
     [](TreeBuilder &t) {
       struct stat st;
       ASSERT_EQ(lstat((t.root() + "/sparse").c_str(), &st), 0);
       t.truncate("sparse", (1 << 20) + 1);
       t.mtime("sparse", st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
     }},
    {"flags of f: want none, have immutable", [](TreeBuilder &t) { t.immutable("f"); }},
    {"flags of d: want none, have append-only", [](TreeBuilder &t) { t.appendOnly("d"); }},
    {"flags of empty: want none, have nocow", [](TreeBuilder &t) { t.noCow("empty"); }},
};

// Differences that come with changed directory times: the line must be among those found.
const Difference kStructural[] = {
    {"left over: new (file)", [](TreeBuilder &t) { t.file("new"); }},
    {"left over: RestoreTemp12 (directory)", [](TreeBuilder &t) { t.dir("RestoreTemp12"); }},
    {"missing: d/e (directory)", [](TreeBuilder &t) { t.remove("d/e"); }},
    {"type of empty: want file, have directory",
     [](TreeBuilder &t) {
       t.remove("empty");
       t.dir("empty");
     }},
    {"target of l: want \"target\", have \"other\"",
     [](TreeBuilder &t) {
       t.remove("l");
       t.symlink("other", "l");
     }},
    {"device number of b: want 7:300, have 7:301",
     [](TreeBuilder &t) {
       t.remove("b");
       t.device("b", S_IFBLK, 7, 301);
     }},
    {"type of s: want socket, have FIFO",
     [](TreeBuilder &t) {
       t.remove("s");
       t.fifo("s");
     }},
    {"hard-link group of f: want {d/f2, f}, have alone",
     [](TreeBuilder &t) {
       t.remove("d/f2");
       t.file("d/f2", "some text");
     }},
    {"links of alone: want 1, have 2",
     [](TreeBuilder &t) {
       t.dir("RestoreTempX");
       t.link("alone", "RestoreTempX/kept");
     }},
    {"flags of compressed: want compressed, have none",
     [](TreeBuilder &t) { t.compress("compressed", false); }},
};

class SelfTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { fs_ = new LoopBtrfs("self"); }
  static void TearDownTestSuite() {
    delete fs_;
    fs_ = nullptr;
  }
  static std::string freshTree() {
    static int number = 0;
    std::string name = "tree" + std::to_string(++number);
    fs_->createSubvolume(name);
    TreeBuilder t(fs_->path(name));
    buildEverything(t);
    t.file("compressed");
    t.compress("compressed");
    return name;
  }
  static LoopBtrfs *fs_;
};
LoopBtrfs *SelfTest::fs_ = nullptr;

TEST_F(SelfTest, SnapshotEqualsItsTreeEvenAfterAccess) {
  std::string name = freshTree();
  fs_->snapshot(name, name + "-snap");
  TreePrint want = fingerprint(fs_->path(name + "-snap"));
  TreePrint have = fingerprint(fs_->path(name));
  EXPECT_EQ(joined(compare(want, have)), "");
  EXPECT_EQ(have.objects.size(), 17u);
  EXPECT_EQ(inodes(want), inodes(have));
  fs_->remount();
  EXPECT_EQ(joined(compare(want, fingerprint(fs_->path(name)))), "") << "after mounting anew";
}

TEST_F(SelfTest, CopyWithOtherInodesIsEqual) {
  std::string name = freshTree();
  fs_->createSubvolume(name + "-copy");
  TreeBuilder copy(fs_->path(name + "-copy"));
  copy.file("so that inode numbers differ");
  copy.remove("so that inode numbers differ");
  runCommand("cp -a --reflink=always --sparse=auto " + fs_->path(name) + "/. " +
             fs_->path(name + "-copy"));
  TreePrint want = fingerprint(fs_->path(name));
  TreePrint have = fingerprint(copy.root());
  EXPECT_EQ(joined(compare(want, have)), "");
  EXPECT_NE(inodes(want), inodes(have));
}

TEST_F(SelfTest, EachDifferenceAloneIsFound) {
  for (const Difference &difference : kDifferences) {
    SCOPED_TRACE(difference.expected);
    std::string name = freshTree();
    TreePrint want = fingerprint(fs_->snapshot(name, name + "-snap"));
    TreeBuilder t(fs_->path(name));
    difference.change(t);
    std::vector<std::string> lines = compare(want, fingerprint(t.root()));
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(joined(lines).find(difference.expected), std::string::npos) << joined(lines);
    // A hard-linked file shows its difference under both names.
    EXPECT_LE(lines.size(), 2u) << joined(lines);
    fs_->destroySubvolume(name);
  }
}

TEST_F(SelfTest, StructuralDifferencesAreFound) {
  for (const Difference &difference : kStructural) {
    SCOPED_TRACE(difference.expected);
    std::string name = freshTree();
    TreePrint want = fingerprint(fs_->snapshot(name, name + "-snap"));
    TreeBuilder t(fs_->path(name));
    difference.change(t);
    std::vector<std::string> lines = compare(want, fingerprint(t.root()));
    EXPECT_NE(joined(lines).find(difference.expected), std::string::npos) << joined(lines);
  }
}

TEST_F(SelfTest, PreallocatedIsHole) {
  std::string name = freshTree();
  TreeBuilder t(fs_->path(name));
  t.file("p1");
  t.preallocate("p1", 0, 1 << 20);
  t.pattern("p1", 8192, 4096, 3);
  fs_->commit();
  TreePrint tree = fingerprint(t.root());
  std::vector<std::pair<uint64_t, uint64_t>> expected{{8192, 12288}};
  EXPECT_EQ(tree.objects["p1"].data, expected);
}

TEST_F(SelfTest, NestedSubvolumesAndExclusions) {
  std::string name = freshTree();
  fs_->createSubvolume(name + "/d/nested");
  TreeBuilder t(fs_->path(name));
  t.file("d/nested/inside");
  t.dir("RestoreTemp7");
  t.dir("d/RestoreTemp7");
  TreePrint tree = fingerprint(t.root(), {{"RestoreTemp"}, false});
  EXPECT_TRUE(tree.objects.at("d/nested").nested);
  EXPECT_EQ(tree.objects.count("d/nested/inside"), 0u);
  EXPECT_EQ(tree.objects.count("RestoreTemp7"), 0u);
  EXPECT_EQ(tree.objects.count("d/RestoreTemp7"), 1u);
  TreePrint snap = fingerprint(fs_->snapshot(name, name + "-snap"));
  EXPECT_TRUE(snap.objects.at("d/nested").nested) << "the stub in the snapshot";
  EXPECT_EQ(fingerprint(t.root(), {{}, true}).objects.count("d/nested"), 0u);
}

TEST(Fingerprint, SeesWhatIsNoLongerTheSameClone) {
  const struct {
    const char *expected;
    std::function<void(TreeBuilder &)> change;
  } cases[] = {
      {"clone state of c: want clone, depth 1, of p, have none",
       [](TreeBuilder &t) { t.removeXattr("c", "trusted.kest.CLONE"); }},
      {"clone state of c: want clone, depth 1, of p, have clone, depth 1, of q",
       [](TreeBuilder &t) {
         t.remove("c");
         t.clone("q", "c");
       }},
      {"clone state of c: want clone, depth 1, of p, have clone, depth 1, of other",
       [](TreeBuilder &t) {
         t.immutable("p", false);
         t.rename("p", "other");
         t.reflink("other", "p");
       }},
      {"clone state of c: want clone, depth 1, of p, have parent, depth 1, of p",
       [](TreeBuilder &t) { t.cloneParent("c"); }},
      {"unshared: c from p in [8192,12288)", [](TreeBuilder &t) { t.pattern("c", 8192, 4096, 1); }},
  };
  LoopBtrfs fs("clones");
  int number = 0;
  for (const auto &one : cases) {
    const std::string name = "f" + std::to_string(++number);
    fs.createSubvolume(name);
    TreeBuilder t(fs.path(name));
    t.big("p", 40960, 1);
    t.reflink("p", "q");
    t.cloneParent("p");
    t.cloneParent("q");
    t.clone("p", "c");
    TreePrint want = fingerprint(fs.snapshot(name, name + "-snap"));
    EXPECT_EQ(joined(compare(want, fingerprint(t.root()))), "");
    one.change(t);
    const std::string lines = joined(compare(want, fingerprint(t.root())));
    EXPECT_NE(lines.find(one.expected), std::string::npos) << one.expected << "\n" << lines;
  }
}

TEST(RunProgram, CapturesAndReports) {
  RunOptions options;
  options.program = "/bin/sh";
  options.environment = {{"KT_MAX_WORKERS", "7"}};
  RunResult result = runProgram({"-c", "echo out $KT_MAX_WORKERS; echo err >&2; exit 3"}, options);
  EXPECT_EQ(result.exitStatus, 3);
  EXPECT_EQ(result.out, "out 7\n");
  EXPECT_EQ(result.err, "err\n");
  EXPECT_EQ(result.processesLeft, 0);
}

TEST(RunProgram, TimeoutAndKillTakeTheWholeSession) {
  RunOptions options;
  options.program = "/bin/sh";
  options.timeoutSeconds = 0.2;
  RunResult result = runProgram({"-c", "sleep 100 & sleep 100"}, options);
  EXPECT_TRUE(result.timedOut);
  EXPECT_LT(result.seconds, 5);
  options.killAfterSeconds = 0.1;
  result = runProgram({"-c", "sleep 100 & sleep 100"}, options);
  EXPECT_TRUE(result.killed);
  EXPECT_EQ(result.signal, 9);
  options.killAfterSeconds = -1;
  options.timeoutSeconds = 10;
  result = runProgram({"-c", "sleep 100 & exit 0"}, options);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.processesLeft, 1) << "a process that outlives the program is reported";
}

}  // namespace
