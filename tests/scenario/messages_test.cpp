// What the command says and how it ends: usage, refusals, progress.
#include <filesystem>
#include <regex>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

const char kUsage[] =
    "Usage fsetrestore\n"
    "    Device { -j FileSet -o SnapShot} \n"
    "    [ -b unitSize | -m threads | -N nodes | -q quite | -x no_EA | -v Verb| -B maxFiles | -E "
    "restore_ENC_EA]\n";

// Time stamps as [T], numbers of operations as N.
std::string masked(const std::string &text) {
  static const std::regex kStamp("\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\]"),
      kCount("\\[T\\] \\d+ operations");
  return std::regex_replace(std::regex_replace(text, kStamp, "[T]"), kCount, "[T] N operations");
}

class Messages : public RestoreFixture {
 protected:
  RunResult run(const std::vector<std::string> &arguments, const RunOptions &options = {}) {
    return testsupport::runProgram(arguments, options);
  }
  std::vector<std::string> workDirectories() {
    std::vector<std::string> found;
    for (const std::string &name : tree().names(""))
      if (name.rfind("RestoreTemp", 0) == 0) found.push_back(name);
    return found;
  }
};

TEST_F(Messages, UsageErrors) {
  const std::string device = fs().mountPoint();
  struct {
    std::vector<std::string> arguments;
    std::string err;
  } const cases[] = {
      {{}, std::string("Too few arguments specified.\n") + kUsage},
      {{device}, kUsage},
      {{device, "-j", "x"}, kUsage},
      {{device, "-o", "x"}, kUsage},
      {{device, "-j", "x", "-o", "y", "-M", "20"}, kUsage},
      {{device, "-j", "x", "-o", "y", "-M", "2k"}, kUsage},
      {{device, "-j", "x", "-o", "y", "-M", ""}, kUsage},
      {{"LIST", "/mnt/batch", "-d", device}, kUsage},
  };
  for (const auto &one : cases) {
    RunResult result = run(one.arguments);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_EQ(result.err, one.err);
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(Messages, OptionsThatAreNone) {
  RunResult result = run({fs().mountPoint(), "-Z", "-j", "x", "-o", "y"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("invalid option -- 'Z'"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(kUsage), std::string::npos)
      << "what follows the unknown option is not read";
  result = run({fs().mountPoint(), "-j", "x", "-o"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("requires an argument -- 'o'"), std::string::npos) << result.err;
}

TEST_F(Messages, ProbeDoesNothing) {
  RunResult result = run({"TEST", "x", "y"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(run({"TEST2"}).exitStatus, 1) << "only the whole word";
}

TEST_F(Messages, UnknownFilesetSnapshotAndDevice) {
  takeSnapshot();
  std::filesystem::create_directories("/mnt/no-btrfs");
  const std::string device = fs().mountPoint(), snapshot = snapshotName();
  struct {
    std::string device, fileset, snapshot, err;
  } const cases[] = {
      {device, "nosuch", snapshot, "Failed to get handle for fileset nosuch, snapshot "},
      {device, fileset(), "nosuch",
       "Failed to get handle for fileset " + fileset() + ", snapshot nosuch in file system " + device +
           ". "},
      {"/mnt/no-btrfs", fileset(), snapshot,
       "Failed to get handle for fileset " + fileset() + ", snapshot "},
      {"/mnt/nowhere", fileset(), snapshot, "in file system /mnt/nowhere. "},
  };
  for (const auto &one : cases) {
    RunResult result = run({one.device, "-j", one.fileset, "-o", one.snapshot, "-m", "4"});
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find(one.err), std::string::npos) << "expected: " << one.err << "\n"
                                                           << result.describe();
    EXPECT_EQ(result.err.find("Prepare restore"), std::string::npos);
  }
  EXPECT_TRUE(workDirectories().empty());
}

TEST_F(Messages, SnapshotOfAnotherFilesetIsRefused) {
  fs().createSubvolume("stranger");
  fs().snapshot("stranger", "stranger-snap");
  tree().file("kept", "x");
  RunResult result = run({fs().mountPoint(), "-j", fileset(), "-o", "stranger-snap", "-m", "4"});
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_TRUE(tree().exists("kept"));
  EXPECT_TRUE(workDirectories().empty());
  fs().destroySubvolume("stranger-snap");
  fs().destroySubvolume("stranger");
}

TEST_F(Messages, CurrentDirectoryInsideTheFileset) {
  tree().dir("d");
  takeSnapshot();
  tree().file("new");
  RunOptions inside;
  inside.workingDirectory = root() + "/d";
  RunResult result = restore("snap", {}, inside);
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "Cannot run command in a directory of restoring fileset.\n");
  EXPECT_TRUE(tree().exists("new"));
  EXPECT_TRUE(workDirectories().empty());

  inside.workingDirectory = root();
  result = restore("snap", {}, inside);
  EXPECT_EQ(result.exitStatus, 0) << "the root itself is accepted\n" << result.describe();
  EXPECT_FALSE(tree().exists("new"));
}

TEST_F(Messages, SiblingWithTheSamePrefixIsNotInside) {
  tree().file("f", "x");
  takeSnapshot();
  tree().remove("f");
  std::string sibling = fs().createSubvolume(fileset() + "0");
  RunOptions beside;
  beside.workingDirectory = sibling;
  RunResult result = restore("snap", {}, beside);
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_TRUE(tree().exists("f"));
  fs().destroySubvolume(fileset() + "0");
}

TEST_F(Messages, ProgressOfAPlainRun) {
  tree().file("changed", "before");
  tree().file("deleted", "text");
  takeSnapshot();
  tree().write("changed", 0, "after!");
  tree().remove("deleted");
  RunResult result = restore();
  ASSERT_EQ(result.exitStatus, 0) << result.describe();
  std::string err = masked(result.err);
  size_t at = 0;
  for (const char *line :
       {"[T] Prepare restore ...\n", "[T] Scan inodes ...\n", "[T] Construct operation list ...\n",
        "[T] N operations have been added to list.\n", "[T] Restore files ...\n",
        "[T] Restore deleted files ...\n", "Restore deleted files done.\n", "[T] Restore completed.\n",
        "[T] Clean up.\n"}) {
    at = err.find(line, at);
    ASSERT_NE(at, std::string::npos) << "no " << line << "in this order in\n" << err;
    at += 1;
  }
  EXPECT_EQ(err.find("depth"), std::string::npos) << "no clones, no word of clones";
  EXPECT_EQ(err.find("Failed"), std::string::npos) << err;
}

TEST_F(Messages, KeepsTheWorkDirectory) {
  tree().file("f", "x");
  takeSnapshot();
  tree().remove("f");
  testsupport::TreePrint want = testsupport::fingerprint(fs().path(snapshotName()));
  RunResult result = restore("snap", {"-k"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(result.err.find("Clean up"), std::string::npos);
  std::vector<std::string> kept = workDirectories();
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(tree().exists(kept[0] + "/ErrorLog"));
  EXPECT_TRUE(tree().exists(kept[0] + "/opList"));
  EXPECT_TRUE(tree().isDir(kept[0] + "/checkpoint"));
  testsupport::FingerprintOptions without;
  without.excludePrefixes = {"RestoreTemp"};
  std::vector<std::string> lines = compare(want, testsupport::fingerprint(root(), without));
  EXPECT_EQ(testsupport::joined(lines), "");

  expectRestored();  // and the next run takes the old one away
  EXPECT_TRUE(workDirectories().empty());
}

TEST_F(Messages, VerboseKeepsTheWorkDirectoryEvenWithQuietAfter) {
  tree().file("f", "x");
  takeSnapshot();
  tree().remove("f");
  RunResult result = restore("snap", {"-v", "-q"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  ASSERT_EQ(workDirectories().size(), 1u);
  EXPECT_TRUE(tree().exists(workDirectories()[0] + "/diffTable"));
}

TEST_F(Messages, QuietRestoresAllTheSame) {
  tree().file("f", "x");
  takeSnapshot();
  tree().remove("f");
  expectRestored("snap", {"-q"});
}

TEST_F(Messages, WithoutExtendedAttributes) {
  tree().file("f", "before");
  tree().setXattr("f", "user.a", "before");
  tree().sparse("deleted", 1 << 20, {0, 1 << 19});
  takeSnapshot();
  tree().remove("deleted");
  tree().write("f", 0, "after!");
  tree().setXattr("f", "user.a", "after");
  RunResult result = restore("snap", {"-x"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(tree().read("f"), "before");
  EXPECT_EQ(tree().read("deleted"), TreeBuilder(fs().path(snapshotName())).read("deleted"));
  auto print = testsupport::fingerprint(root());
  EXPECT_EQ(print.objects.at("f").xattrs.at("user.a"), "after");
}

}  // namespace
