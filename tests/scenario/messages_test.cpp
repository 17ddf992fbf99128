// What the command prints and how it ends: usage, refusals, progress.
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

const char kUsage[] =
    "Usage fsetrestore\n"
    "    Device { -j FileSet -o SnapShot} \n"
    "    [ -b unitSize | -m threads | -N nodes | -q quite | -x no_EA | -v Verb| -B maxFiles | -E "
    "restore_ENC_EA]\n";

class Messages : public RestoreFixture {
 protected:
  RunResult run(const std::vector<std::string> &arguments) {
    return testsupport::runProgram(arguments);
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
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {device},
                                                       {device, "-j", "x"},
                                                       {device, "-j", "x", "-o", "y", "-M", "20"},
                                                       {"LIST", "/mnt/batch"}};
  for (const auto &arguments : wrong) {
    RunResult result = run(arguments);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_EQ(result.err,
              (arguments.empty() ? "Too few arguments specified.\n" : "") + std::string(kUsage));
    EXPECT_EQ(result.out, "");
  }
  RunResult result = run({device, "-Z", "-j", "x", "-o", "y"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("invalid option -- 'Z'"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(kUsage), std::string::npos) << result.err;
  result = run({"TEST", "x", "y"});  // as the engine asks it
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(run({"TEST2"}).exitStatus, 1) << "only the whole word";
}

// The first variable that is set decides, also with the name of a locale that this machine does not
// have.
TEST_F(Messages, LanguageOfTheEnvironment) {
  const std::string folder = "/usr/share/locale";
  ASSERT_EQ(mount("catalogues", folder.c_str(), "tmpfs", 0, nullptr), 0);
  const auto unmount = [](const char *path) { umount(path); };
  const std::unique_ptr<const char, decltype(unmount)> mounted(folder.c_str(), unmount);
  std::filesystem::create_directories(folder + "/xx/LC_MESSAGES");
  std::ofstream("/mnt/catalogue") << "$set 27\n476 %s in xx\n";
  EXPECT_EQ(system(("gencat " + folder + "/xx/LC_MESSAGES/kest.cat /mnt/catalogue").c_str()), 0);
  const struct {
    const char *all, *messages, *lang;
    bool translated;
  } cases[] = {{"xx_XX.UTF-8", "C", "C", true}, {"", "xx_XX.UTF-8", "C", true},
               {"", "", "xx.utf8", true},       {"C", "xx_XX.UTF-8", "xx.utf8", false},
               {"", "C", "xx.utf8", false},     {"", "", "xx_XX", false}};
  for (const auto &one : cases) {
    RunOptions options;
    options.environment = {{"LC_ALL", one.all}, {"LC_MESSAGES", one.messages}, {"LANG", one.lang}};
    EXPECT_EQ(testsupport::runProgram({fs().mountPoint()}, options).err,
              one.translated ? "fsetrestore in xx" : kUsage)
        << one.all << "|" << one.messages << "|" << one.lang;
  }
}

TEST_F(Messages, UnknownFilesetSnapshotAndDevice) {
  takeSnapshot();
  fs().createSubvolume("stranger");
  const std::string device = fs().mountPoint();
  const struct {
    std::string device, fileset, snapshot;
  } cases[] = {{device, "nosuch", snapshotName()},
               {device, fileset(), "nosuch"},
               {"/mnt/nowhere", fileset(), snapshotName()},
               {device, "stranger", snapshotName()}};
  for (const auto &one : cases) {
    RunResult result = run({one.device, "-j", one.fileset, "-o", one.snapshot, "-m", "4"});
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    for (const std::string &text : {"Failed to get handle for fileset " + one.fileset + ", snapshot ",
                                    " in file system " + one.device + ". "})
      EXPECT_NE(result.err.find(text), std::string::npos) << text << "\n" << result.describe();
    EXPECT_EQ(result.err.find("Prepare restore"), std::string::npos);
  }
  EXPECT_TRUE(workDirectories().empty());
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

  // The root itself is accepted, and a sibling with the same prefix is outside.
  for (const std::string &directory : {root(), fs().createSubvolume(fileset() + "0")}) {
    tree().append("new", "text");
    inside.workingDirectory = directory;
    expectRestored("snap", {"-q"}, inside);
    tree().file("new");
  }
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
  static const std::regex kNumbers("\\[[-0-9]+ [:0-9]+\\]| \\d+ ");
  const std::string err = std::regex_replace(result.err, kNumbers, "[T]");
  size_t at = 0;
  for (const char *line :
       {"[T] Prepare restore ...\n", "[T] Scan inodes ...\n", "[T] Construct operation list ...\n",
        "[T][T]operations have been added to list.\n", "[T] Restore files ...\n",
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
  RunResult result = restore("snap", {"-k"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(result.err.find("Clean up"), std::string::npos);
  const std::vector<std::string> kept = workDirectories();
  ASSERT_EQ(kept.size(), 1u);
  for (const char *name : {"ErrorLog", "opList", "checkpoint"})
    EXPECT_TRUE(tree().exists(kept[0] + "/" + name)) << name;
  EXPECT_EQ(testsupport::joined(compare(testsupport::fingerprint(fs().path(snapshotName())),
                                        testsupport::fingerprint(root(), {{"RestoreTemp"}, false}))),
            "");
  expectRestored();  // and the next run removes the old one
  EXPECT_TRUE(workDirectories().empty());
  tree().remove("f");
  EXPECT_EQ(restore("snap", {"-v", "-q"}).exitStatus, 0);
  ASSERT_EQ(workDirectories().size(), 1u);
  EXPECT_TRUE(tree().exists(workDirectories()[0] + "/diffTable"));
}

TEST_F(Messages, WithoutExtendedAttributes) {
  tree().file("f", "before");
  tree().setXattr("f", "user.a", "before");
  tree().sparse("deleted", 1 << 20, {0, 1 << 19});
  takeSnapshot();
  tree().remove("deleted");
  tree().write("f", 0, "after!");
  tree().setXattr("f", "user.a", "after");
  EXPECT_EQ(restore("snap", {"-x"}).exitStatus, 0);
  auto want = testsupport::fingerprint(fs().path(snapshotName()));
  want.objects["f"].xattrs["user.a"] = "after";
  EXPECT_EQ(testsupport::joined(compare(want, testsupport::fingerprint(root()))), "");
}

}  // namespace
