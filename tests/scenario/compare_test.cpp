// fsetcompare: exactly one line for each difference, the same by the difference scan and by reading
// everything.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "scenario/restore_fixture.h"
#include "support/fault_plan.h"
#include "support/survival.h"

using namespace scenario;

namespace {

constexpr const char *kProgram = "/usr/qtx/kest/bin/fsetcompare";
constexpr int64_t kThen = 1000000000;

struct Case {
  const char *name;
  void (*change)(TreeBuilder &);
  std::vector<std::string> lines;  // with "\t" as in the output, without the count
};

void settle(TreeBuilder &t) {
  for (const char *path : {"", "d", "d/e", "d/f", "d/s", "d/x1", "d/x2", "d/y1", "d/y2", "d/l", "d/c",
                           "d/e/g", "d/e/h", "d/e/empty", "d/empty", "d/twin"})
    if (t.exists(path)) t.mtime(path, kThen);
}

void build(TreeBuilder &t) {
  t.dirs("d/e/empty");
  t.dir("d/empty");
  t.big("d/f", 20000, 1);
  t.setXattr("d/f", "user.a", "1");
  t.sparse("d/s", 1ull << 40, {0, 1ull << 30});
  for (const char *name : {"x", "y"}) {
    t.file(std::string("d/") + name + "1", name);
    t.link(std::string("d/") + name + "1", std::string("d/") + name + "2");
  }
  t.symlink("f", "d/l");
  t.fifo("d/p");
  t.mtime("d/p", kThen);
  t.device("d/c", S_IFCHR, 1, 3);
  t.big("d/e/g", 10000, 2);
  t.file("d/e/h", "some text");
  t.file("d/twin", "some text");
  t.file("d/fixed");
  t.dir("d/grows");
  settle(t);
}

const Case kCases[] = {
    {"Data",
     [](TreeBuilder &t) {
       t.pattern("d/f", 8192, 100, 9);
       t.punch("d/e/g", 4096, 8192);
       t.append("d/twin", "more");
       t.write("d/s", 1 << 20, std::string(4096, '\0'));
       t.write("d/s", (1ull << 40) - 5, "x");
     },
     {"data\td/e/g\t4096", "data\td/f\t8192", "data\td/s\t1099511627771", "holes\td/e/g\t4096",
      "holes\td/s\t1048576", "size\td/twin\t9\t13"}},
    {"Attributes",
     [](TreeBuilder &t) {
       t.chmod("d/e/g", 04755);
       t.chown("d/e/h", 7, 8);
       t.mtime("d/p", -5, 7);
       t.setXattr("d/f", "user.a", "2");
       t.setXattr("d/empty", "trusted.\t", "x");
       t.setXattr("d/e", testsupport::kDefaultAcl, testsupport::aclForUser(5, 7));
       for (const char *name : {"d/l", "d/c"}) t.remove(name);
       t.symlink("to\\g", "d/l");
       t.device("d/c", S_IFCHR, 1, 4500);
     },
     {"device\td/c\t1:3\t1:4500", "group\td/e/h\t0\t8", "mode\td/e/g\t0644\t4755",
      "mtime\td/p\t1000000000.000000000\t-5.000000007", "owner\td/e/h\t0\t7", "target\td/l\tf\tto\\\\g",
      "xattr\td/e\tsystem.posix_acl_default", "xattr\td/empty\ttrusted.\\t", "xattr\td/f\tuser.a"}},
    {"WhatNobodyCouldTell",
     [](TreeBuilder &t) {
       t.remove("d/f");  // the file is made again below
       t.big("d/f", 20000, 1);
       t.setXattr("d/f", "user.a", "1");
       t.pattern("d/e/g", 4096, 4096, 2);
       t.preallocate("d/s", 1 << 21, 4096);
       t.exchange("d/twin", "d/e/h");
       t.exchange("d/empty", "d/e/empty");
     },
     {}},
    {"Flags",
     [](TreeBuilder &t) {
       t.immutable("d/fixed");
       t.appendOnly("d/grows");
       t.noCow("d/e/empty");
       t.compress("d/f");
       t.flag("d/e", FS_NOATIME_FL | FS_NODUMP_FL | FS_SYNC_FL | FS_DIRSYNC_FL);
       t.flag("d/e/g", FS_NOCOMP_FL);
     },
     {"flags\td/e\tnone\tno-atime,no-dump,sync,dirsync", "flags\td/e/g\tnone\tuncompressed",
      "flags\td/e/empty\tnone\tnocow", "flags\td/fixed\tnone\timmutable",
      "flags\td/grows\tnone\tappend-only", "flags\td/f\tnone\tcompressed",
      "xattr\td/f\tbtrfs.compression"}},
    {"MissingExtraAndOtherTypes",
     [](TreeBuilder &t) {
       t.remove("d/f");
       t.dirs("d/f/new");
       t.removeTree("d/e");
       t.file("d/e");
       t.remove("d/twin");
       t.dir("d/n");
       t.fifo("d/n/\x01\\\n\xff");
     },
     {"extra\td/f/new\tdirectory", "extra\td/n\tdirectory", "extra\td/n/\\x01\\\\\\n\xff\tfifo",
      "missing\td/e/empty\tdirectory", "missing\td/e/g\tfile", "missing\td/e/h\tfile",
      "missing\td/twin\tfile", "type\td/e\tdirectory\tfile", "type\td/f\tfile\tdirectory"}},
    {"MovedAndChangedInside",
     [](TreeBuilder &t) {
       t.rename("d/e", "moved");
       t.chmod("moved/g", 0600);
       t.remove("moved/h");
       t.file("moved/new");
       t.rename("moved/empty", "d/taken");
       t.mtime("moved", kThen);
     },
     {"extra\tmoved/new\tfile", "missing\td/e/h\tfile", "mode\td/e/g\t0644\t0600", "moved\td/e\tmoved",
      "moved\td/e/empty\td/taken"}},
    {"ParentAndChildExchanged",
     [](TreeBuilder &t) {
       t.rename("d/e/empty", "x");
       t.rename("d/e", "x/e");
       t.rename("x", "d/empty2");
       t.mtime("d/empty2/e", kThen);
       t.mtime("d/empty2", kThen);
     },
     {"moved\td/e\td/empty2/e", "moved\td/e/empty\td/empty2"}},
    {"LinksAddedAndCut",
     [](TreeBuilder &t) {
       t.link("d/x1", "d/e/x3");
       t.remove("d/y1");
       t.file("d/y1", "y");
       for (std::string name : {"y1", "y2"})
         t.link("d/" + name, "d/e/" + name);  // as many names as before
     },
     {"extra\td/e/x3\tfile", "extra\td/e/y1\tfile", "extra\td/e/y2\tfile", "links\td/x1",
      "links\td/y1"}},
    {"LinksCrossed",
     [](TreeBuilder &t) { t.exchange("d/x2", "d/y2"); },
     {"data\td/x2\t0", "data\td/y2\t0", "links\td/x1", "links\td/y1"}},
};

class Compare : public RestoreFixture {
 protected:
  RunResult run(const std::vector<std::string> &options = {}, const RunOptions &running = {}) {
    RunOptions all = running;
    all.program = kProgram;
    return testsupport::runRestore(fs().mountPoint(), fileset(), snapshotName(), options, all);
  }

  // Compares in both ways.
  void expectLines(std::vector<std::string> want) {
    std::sort(want.begin(), want.end());
    for (const std::vector<std::string> &options : {std::vector<std::string>{}, {"--full"}}) {
      SCOPED_TRACE(options.empty() ? "by the difference scan" : "--full");
      RunResult result = run(options);
      EXPECT_EQ(result.exitStatus, want.empty() ? 0 : 1);
      EXPECT_EQ(result.err, "");
      // In any order, with the count at the end.
      std::vector<std::string> lines;
      std::istringstream in(result.out);
      for (std::string line; std::getline(in, line);) lines.push_back(line);
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(lines.back(), "differences\t" + std::to_string(want.size()));
      lines.pop_back();
      std::sort(lines.begin(), lines.end());
      EXPECT_EQ(testsupport::joined(lines), testsupport::joined(want));
    }
  }
};

class CompareTable : public Compare, public ::testing::WithParamInterface<Case> {};

TEST_P(CompareTable, OneLineADifference) {
  build(tree());
  takeSnapshot();
  GetParam().change(tree());
  settle(tree());
  expectLines(GetParam().lines);
}

std::string nameOf(const ::testing::TestParamInfo<Case> &info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Kinds, CompareTable, ::testing::ValuesIn(kCases), nameOf);

void family(TreeBuilder &t) {
  t.big("parent", 100000, 1);
  t.mtime("parent", kThen);
  t.cloneParent("parent");
  t.clone("parent", "clone");
  t.clone("parent", "other");
  t.pattern("other", 8192, 4096, 2);
  for (const char *name : {"clone", "other", ""}) t.mtime(name, kThen);
}

TEST_F(Compare, ClonesOfAParentThatWasMadeAgain) {
  family(tree());
  takeSnapshot();
  tree().immutable("parent", false);
  tree().remove("parent");
  tree().big("parent", 100000, 1);
  tree().cloneParent("parent");
  tree().mtime("", kThen);
  tree().immutable("parent", false);
  tree().mtime("parent", kThen);
  tree().immutable("parent");
  expectLines({"parent\tclone", "parent\tother"});
  RunResult restored = restore();
  EXPECT_EQ(restored.exitStatus, 0) << restored.describe();
  expectLines({});
}

TEST_F(Compare, ClonesThatChanged) {
  family(tree());
  takeSnapshot();
  tree().remove("other");
  tree().big("other", 100000, 1);
  tree().pattern("other", 8192, 4096, 2);
  tree().chmod("other", 0600);
  const std::string same = tree().read("clone").substr(0, 50000);
  tree().write("clone", 0, same);
  for (const char *name : {"clone", "other", ""}) tree().mtime(name, kThen);
  expectLines({"clone\tother\tclone:1\tnone", "unshared\tclone\t0"});
}

TEST_F(Compare, NestedFilesets) {
  tree().dirs("d");
  fs().createSubvolume(fileset() + "/d/stood");
  fs().createSubvolume(fileset() + "/d/went");
  tree().mtime("d", kThen);
  takeSnapshot();
  fs().destroySubvolume(fileset() + "/d/went");
  tree().mtime("d", kThen);
  TreeBuilder(root() + "/d/stood").file("not ours");
  expectLines({});
  fs().createSubvolume(fileset() + "/d/new");
  TreeBuilder(root() + "/d/new").file("not ours");
  tree().mtime("d", kThen);
  expectLines({"extra\td/new\tfileset"});
  for (const char *name : {"stood", "new"}) fs().destroySubvolume(fileset() + "/d/" + name);
}

TEST_F(Compare, WhatAMountCoversIsNotPassedOver) {
  tree().dirs("d/m/below");
  tree().mtime("d/m", kThen);
  takeSnapshot();
  tree().chmod("d/m", 0700);
  tree().chmod("d/m/below", 0700);
  testsupport::runCommand("mount -t tmpfs covering " + root() + "/d/m");
  expectLines({"mode\td/m\t0755\t0700", "mode\td/m/below\t0755\t0700"});
  testsupport::runCommand("umount " + root() + "/d/m");
}

TEST_F(Compare, ChangesNothingNotEvenAccessTimes) {
  build(tree());
  remount("strictatime");
  takeSnapshot();
  tree().pattern("d/f", 8192, 100, 9);
  fs().commit();
  const auto state = [&] {
    std::vector<std::string> text;
    for (const char *path : {"", "d", "d/f", "d/s", "d/p"}) {
      struct stat st;
      EXPECT_EQ(lstat((root() + "/" + path).c_str(), &st), 0);
      for (const timespec &time : {st.st_atim, st.st_ctim})
        text.push_back(std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec));
    }
    return text;
  };
  const auto before = state();
  testsupport::awaitClockTick();
  EXPECT_EQ(run().exitStatus, 1);
  EXPECT_EQ(run({"--full"}).exitStatus, 1);
  EXPECT_EQ(state(), before);
  remount();
}

TEST_F(Compare, WhatCannotBeReadIsTroubleNotEquality) {
  build(tree());
  takeSnapshot();
  tree().pattern("d/f", 8192, 100, 9);
  for (const char *call :
       {"kest_next_inode64", "kest_ireadx", "kest_iread", "kest_ireaddirx64", "kest_iopen64",
        "kest_path_descriptor", "kest_iclone_attr", "kest_ireaddirc64"}) {
    testsupport::Fault fault;
    fault.call = call;
    fault.error = EIO;
    fault.times = 0;
    fault.nth = std::string(call) == "kest_iopen64" ? 3 : 1;
    testsupport::FaultPlan plan(fault);
    RunOptions options;
    options.environment = plan.environment();
    RunResult result = run({}, options);
    EXPECT_EQ(result.exitStatus, 2) << call << result.describe();
    EXPECT_NE(result.err.find("Input/output error"), std::string::npos) << call << result.describe();
    EXPECT_GE(plan.struck(), 1u) << call;
  }
}

TEST_F(Compare, BadUsageIsTrouble) {
  takeSnapshot();
  const std::string device = fs().mountPoint();
  RunOptions options;
  options.program = kProgram;
  const std::vector<std::vector<std::string>> wrong{
      {},
      {device, "-j", fileset()},
      {"-j", fileset(), "-o", snapshotName()},
      {device, device, "-j", fileset(), "-o", snapshotName()},
      {device, "-j", fileset(), "-o", snapshotName(), "--complete"},
      {device, "-j", fileset(), "-o", "never"}};
  for (const std::vector<std::string> &arguments : wrong) {
    RunResult result = testsupport::runProgram(arguments, options);
    EXPECT_EQ(result.exitStatus, 2) << testsupport::joined(arguments);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
  }
  options.program = "/bin/sh";
  RunResult full =
      testsupport::runProgram({"-c", std::string(kProgram) + " " + device + " -j " + fileset() +
                                         " -o " + snapshotName() + " > /dev/full"},
                              options);
  EXPECT_EQ(full.exitStatus, 2) << full.describe();
}

}  // namespace
