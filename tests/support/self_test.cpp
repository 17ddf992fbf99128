// Tests the comparison itself: it must find every single difference, and none between a tree and its
// snapshot.
#include <gtest/gtest.h>
#include <sys/stat.h>

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
  t.file("compressed");
  t.compress("compressed");
  for (const char *parent : {"q", "r"}) {
    t.big(parent, 40960, 1);
    t.mtime(parent, 1000000000);
    t.cloneParent(parent);
  }
  t.clone("q", "k");
  // Times that nobody sets come from the clock, but two trees built alike must be equal.
  for (const std::string &name : t.names(""))
    if (name != "q" && name != "r") t.mtime(name, 1000000000);
  t.mtime("", 1000000000);
}

struct Difference {
  const char *expected;  // part of a line of the comparison, the only line if `alone` is set
  std::function<void(TreeBuilder &)> change;
  bool alone = true;  // apart from a line for a second name of the file
};

// Changes the file's data and restores its time.
template <typename Change>
std::function<void(TreeBuilder &)> quietly(const char *file, Change change) {
  return [file, change](TreeBuilder &t) {
    struct stat st;
    ASSERT_EQ(lstat((t.root() + "/" + file).c_str(), &st), 0);
    change(t);
    t.mtime(file, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  };
}

const Difference kDifferences[] = {
    {"mode of d/g: want 4755, have 0755", [](auto &t) { t.chmod("d/g", 0755); }},
    {"owner of alone: want 0, have 12", [](auto &t) { t.chown("alone", 12, 0); }},
    {"group of l: want 0, have 13", [](auto &t) { t.chown("l", 0, 13); }},
    {"user.a of f: want \"1\", have \"2\"", [](auto &t) { t.setXattr("f", "user.a", "2"); }},
    {"trusted.b of d: want \"\", have nothing", [](auto &t) { t.removeXattr("d", "trusted.b"); }},
    {"trusted.n of p: want nothing", [](auto &t) { t.setXattr("p", "trusted.n", ""); }},
    {"trusted.c of l:", [](auto &t) { t.setXattr("l", "trusted.c", "other"); }},
    {"posix_acl_access of f:", [](auto &t) { t.setXattr("f", kAccessAcl, aclForUser(1000, 4)); }},
    {"mtime of d/e: want -31536000.999999999, have -31536000.999999998",
     [](auto &t) { t.mtime("d/e", -86400 * 365, 999999998); }},
    {"mtime of l:", [](auto &t) { t.mtime("l", 77); }},
    {"mtime of the root:", [](auto &t) { t.mtime("", 5); }},
    {"data of big: want hash",
     quietly("big",
             [](auto &t) { t.write("big", 250001, std::string(1, char(~t.read("big")[250001]))); })},
    {"data ranges of zeros: want [0,8192), have [4096,8192)",
     quietly("zeros", [](auto &t) { t.punch("zeros", 0, 4096); })},
    {"size of sparse: want 1048576, have 1048577",
     quietly("sparse", [](auto &t) { t.truncate("sparse", (1 << 20) + 1); })},
    {"flags of f: want none, have immutable", [](auto &t) { t.immutable("f"); }},
    {"flags of d: want none, have append-only", [](auto &t) { t.appendOnly("d"); }},
    {"flags of empty: want none, have nocow", [](auto &t) { t.noCow("empty"); }},
    {"flags of compressed: want compressed, have none",
     [](auto &t) { t.compress("compressed", false); }},
    {"left over: new (file)", [](auto &t) { t.file("new"); }, false},
    {"missing: d/e (directory)", [](auto &t) { t.remove("d/e"); }, false},
    {"type of empty: want file, have directory",
     [](auto &t) {
       t.remove("empty");
       t.dir("empty");
     },
     false},
    {"target of l: want \"target\", have \"other\"",
     [](auto &t) {
       t.remove("l");
       t.symlink("other", "l");
     },
     false},
    {"device number of b: want 7:300, have 7:301",
     [](auto &t) {
       t.remove("b");
       t.device("b", S_IFBLK, 7, 301);
     },
     false},
    {"hard-link group of f: want {d/f2, f}, have alone",
     [](auto &t) {
       t.remove("d/f2");
       t.file("d/f2", "some text");
     },
     false},
    {"clone state of k: want clone, depth 1, of q, have none",
     [](auto &t) { t.removeXattr("k", "trusted.kest.CLONE"); }},
    {"clone state of k: want clone, depth 1, of q, have clone, depth 1, of r",
     [](auto &t) {
       t.remove("k");
       t.clone("r", "k");
     },
     false},
    {"clone state of k: want clone, depth 1, of q, have clone, depth 1, of other",
     [](auto &t) {
       t.immutable("q", false);
       t.rename("q", "other");
       t.reflink("other", "q");
     },
     false},
    {"clone state of k: want clone, depth 1, of q, have parent, depth 1, of q",
     [](auto &t) { t.cloneParent("k"); }, false},
    {"unshared: k from q in [8192,12288)", [](auto &t) { t.pattern("k", 8192, 4096, 1); }, false},
};

TEST(Fingerprint, SeesEachDifferenceAndNoOther) {
  LoopBtrfs fs("self", 1ull << 30);
  int number = 0;
  for (const Difference &difference : kDifferences) {
    SCOPED_TRACE(difference.expected);
    const std::string name = "tree" + std::to_string(++number);
    fs.createSubvolume(name);
    TreeBuilder t(fs.path(name));
    buildEverything(t);
    const TreePrint want = fingerprint(fs.snapshot(name, name + "-snap"));
    EXPECT_EQ(joined(compare(want, fingerprint(t.root()))), "");
    difference.change(t);
    const std::vector<std::string> lines = compare(want, fingerprint(t.root()));
    EXPECT_NE(joined(lines).find(difference.expected), std::string::npos) << joined(lines);
    EXPECT_TRUE(lines.size() <= 2 || !difference.alone) << joined(lines);
  }
  fs.remount();
  EXPECT_EQ(joined(compare(fingerprint(fs.path("tree1-snap")), fingerprint(fs.path("tree2-snap")))),
            "");
}

TEST(Fingerprint, PreallocatedIsHoleAndNestedIsNotEntered) {
  LoopBtrfs fs("self");
  fs.createSubvolume("f");
  fs.createSubvolume("f/d/nested");
  TreeBuilder t(fs.path("f"));
  t.file("d/nested/inside");
  t.dir("RestoreTemp7");
  t.dir("d/RestoreTemp7");
  t.file("p1");
  t.preallocate("p1", 0, 1 << 20);
  t.pattern("p1", 8192, 4096, 3);
  fs.commit();
  const TreePrint tree = fingerprint(t.root(), {{"RestoreTemp"}, false});
  EXPECT_EQ(tree.objects.at("p1").data, (BlockRanges{{8192, 12288}}));
  EXPECT_TRUE(tree.objects.at("d/nested").nested);
  EXPECT_EQ(tree.objects.size(), 5u) << "the root, p1, d, and two in it";
  const TreePrint snap = fingerprint(fs.snapshot("f", "snap"));
  EXPECT_TRUE(snap.objects.at("d/nested").nested) << "the stub in the snapshot";
  EXPECT_EQ(fingerprint(t.root(), {{}, true}).objects.count("d/nested"), 0u);
}

TEST(RunProgram, CapturesReportsAndTakesTheWholeSession) {
  RunOptions options;
  options.program = "/bin/sh";
  options.environment = {{"KT_MAX_WORKERS", "7"}};
  RunResult result =
      runProgram({"-c", "sleep 100 & echo $KT_MAX_WORKERS; echo err >&2; exit 3"}, options);
  EXPECT_EQ(result.exitStatus, 3);
  EXPECT_EQ(result.out, "7\n");
  EXPECT_EQ(result.err, "err\n");
  EXPECT_EQ(result.processesLeft, 1) << "a process that outlives the program is reported";
  Running run({"-c", "sleep 1000 & echo; sleep 1000"}, options);
  EXPECT_TRUE(waitUntil([&] { return !run.out().empty(); }, 1000));
  EXPECT_TRUE(run.endAll());
  EXPECT_EQ(run.signalNumber(), 9);
  EXPECT_TRUE(run.living().empty());
  // Even one that has hardly begun.
  options.timeoutSeconds = 0;
  result = runProgram({"-c", "sleep 1000"}, options);
  EXPECT_TRUE(result.timedOut);
  EXPECT_EQ(result.signal, 9);
  options.killAfterSeconds = 0;
  result = runProgram({"-c", "sleep 1000"}, options);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.signal, 9);
}

}  // namespace
