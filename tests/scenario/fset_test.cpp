// fset on plain snapshots: what a user types, what he is asked and told, and that nothing happens
// before a yes.
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "scenario/fset_fixture.h"
#include "support/survival.h"

using namespace scenario;
using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;

namespace {

class Fset : public RestoreFixture {
 protected:
  void SetUp() override {
    RestoreFixture::SetUp();
    tree().dirs("projects/a");
    tree().file("projects/a/changed", "before");
    tree().file("projects/a/deleted", std::string(5000, 'x'));
    tree().dir("mail");
    takeSnapshot();
  }
  void TearDown() override {
    if (onCephFs())
      testsupport::runCommand("rmdir " + root() + "/.snap/fset-* 2>&1 || true");
    else
      testsupport::runCommand("btrfs -q subvolume delete " + fs().mountPoint() +
                              "/.fset/* 2>&1; rmdir " + fs().mountPoint() + "/.fset || true");
    RestoreFixture::TearDown();
  }
  void wreck() {
    tree().write("projects/a/changed", 0, "after!");
    tree().remove("projects/a/deleted");
    tree().file("new", "new");
  }
  static bool onCephFs() { return testsupport::TestFileSystem::onCephFs(); }
  bool haveBackups() const {
    if (!onCephFs()) return std::filesystem::exists(fs().mountPoint() + "/.fset");
    for (const auto &entry : std::filesystem::directory_iterator(root() + "/.snap"))
      if (entry.path().filename() != snapshotName()) return true;
    return false;
  }
  // The path of the snapshot below the top of the file system.
  std::string listedPath() const { return snapshotPath().substr(device().size() + 1); }
  // Runs the command on its own terminal, where `typed` is typed. Returns the output and, after it, the
  // status.
  std::string onTerminal(const std::string &command, const std::string &typed) {
    testsupport::runCommand("cd " + root() + "/mail && { printf '" + typed +
                            "' | TERM=xterm script -qec '" + command +
                            "; echo status $?' /dev/null; } > /mnt/typescript 2>&1");
    return testsupport::readAll("/mnt/typescript");
  }
};

TEST_F(Fset, ThereAndBackFromWhereOneStands) {
  wreck();
  const TreePrint wrecked = fingerprint(root());
  RunResult result = runFset({"list"}, root() + "/mail");
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_TRUE(std::regex_search(
      result.out, std::regex("Snapshots of " + fileset() + "\n.*\n  20[-0-9]+ [:0-9]+  \\d+ s +" +
                             snapshotName() + "  plain    " + listedPath() + "\n")))
      << result.describe();
  result = runFset({"diff", snapshotName()}, root() + "/mail");
  EXPECT_EQ(result.exitStatus, 1);
  for (const char *line :
       {"+ comes back", "+ projects/a/deleted  (file, 4.9 KiB)\n", "- new  (file, 3 B)\n",
        "~ projects/a/changed  (mtime, data, 6 B)\n", "  projects  "})
    EXPECT_NE(result.out.find(line), std::string::npos) << line << result.describe();
  EXPECT_EQ(joined(compare(wrecked, fingerprint(root()))), "");
  expectThereAndBack({root() + "/mail"}, root(), "latest", snapshotPath());

  result = runFset({"list", root()});
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '*'), 2) << result.describe();
  result = runFset({"undo", root(), "--yes"});  // undo again: to the same state
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.out.find("there is nothing to restore"), std::string::npos) << result.describe();
  if (onCephFs()) return;  // has no folder for backups
  struct stat st;
  ASSERT_EQ(stat((fs().mountPoint() + "/.fset").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(Fset, NothingChangesWithoutAYes) {
  wreck();
  const TreePrint wrecked = fingerprint(root());
  RunResult result = runFset({"restore", root(), snapshotName()});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("Nothing was changed"), std::string::npos) << result.describe();
  EXPECT_EQ(fsetJson({"restore", root(), snapshotName()}, 1)["command"], "restore");
  const std::string restore = "/usr/qtx/kest/bin/fset restore latest";
  for (const char *typed : {"n\\n", "\\n", "maybe\\n", ""}) {
    const std::string shown = onTerminal(restore, typed);
    EXPECT_NE(shown.find("[y/N]"), std::string::npos) << shown;
    EXPECT_NE(shown.find("Nothing was changed"), std::string::npos) << shown;
    EXPECT_NE(shown.find("status 1"), std::string::npos) << shown;
    EXPECT_NE(shown.find("In use by: "), std::string::npos) << shown;  // by that shell
  }
  EXPECT_EQ(joined(compare(wrecked, fingerprint(root()))), "");
  EXPECT_FALSE(haveBackups());

  // Usage errors and impossible requests: only a message and the status of a failure.
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"nosuch"},
                                                       {"restore"},
                                                       {"list", "--nosuch"},
                                                       {"diff", root(), snapshotName(), "x"},
                                                       {"diff", root(), "nosuch"},
                                                       {"diff", "/nowhere", "x"},
                                                       {"list", "/proc"},
                                                       {"list", "/dev/null"},
                                                       {"undo", root(), "--yes"},
                                                       {"restore", root(), "2001-01-01", "--yes"},
                                                       {"list", "--fileset", "nosuch", root()}};
  for (const auto &arguments : wrong) {
    result = runFset(arguments);
    const bool changing = !arguments.empty() && (arguments[0] == "restore" || arguments[0] == "undo");
    EXPECT_EQ(result.exitStatus, changing ? 1 : 2) << result.describe();
    EXPECT_EQ(result.err.rfind("fset: ", 0), 0u) << result.describe();
  }
  EXPECT_EQ(runFset({"diff", root(), "nosuch"}).out, "");
  EXPECT_NE(fsetJson({"diff", root(), "nosuch"}, 2)["error"], "");

  const std::string shown = onTerminal(restore, "y\\n");
  EXPECT_NE(shown.find("status 0"), std::string::npos) << shown;
  EXPECT_EQ(shown.find("Prepare restore"), std::string::npos) << shown;
  EXPECT_EQ(joined(compare(fingerprint(snapshotPath()), fingerprint(root()))), "");
}

TEST_F(Fset, WhatIsMountedNowhereAndTheTopLevelItself) {
  wreck();
  // Neither fileset nor snapshot is visible; only an unrelated subvolume is mounted.
  fs().createSubvolume("stranger");
  detach();
  fs().remount("", "stranger");
  RunResult result = runFset({"diff", "--stat", "--fileset", fileset(), fs().mountPoint(), "latest"});
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  result = runFset({"restore", "--yes", "--fileset", fileset(), fs().mountPoint(), "latest"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  fs().unmount();
  // The file system is not mounted at all; the device names it.
  testsupport::runCommand("losetup -f --show " + fs().image() + " | tr -d '\\n' > /mnt/loop");
  const std::string loop = testsupport::readAll("/mnt/loop");
  EXPECT_EQ(runFset({"list", loop}).exitStatus, 2) << "which of its subvolumes?";
  EXPECT_EQ(fsetJson({"list", "--fileset", "/" + fileset(), loop})["snapshots"].size(), 2u);
  result = runFset({"undo", "--yes", "--fileset", fileset(), loop});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  testsupport::runCommand("losetup -d " + loop);
  remount();
  EXPECT_TRUE(tree().exists("new"));
  EXPECT_EQ(testsupport::readAll("/proc/self/mountinfo").find("/fset."), std::string::npos);
  fs().destroySubvolume("stranger");

  const std::string top = fs().mountPoint();
  TreeBuilder(top).file("of the top", "text");
  fs().snapshot("", "top-snap");
  testsupport::awaitClockTick();
  TreeBuilder(top).remove("of the top");
  EXPECT_EQ(fsetJson({"restore", top, "top-snap", "--yes"})["differences_left"], 0);
  EXPECT_EQ(TreeBuilder(top).read("of the top"), "text");
  EXPECT_EQ(fsetJson({"undo", top, "--yes"})["differences_left"], 0);
  EXPECT_FALSE(TreeBuilder(top).exists("of the top"));
  fs().destroySubvolume("top-snap");
}

TEST_F(Fset, NamesOfAnyBytes) {
  tree().file("a\nb\x1b[31m\xff", "x");
  takeSnapshot("odd \xff\x1b';$(touch hacked)");
  const std::string odd = snapshotName("odd \xff\x1b';$(touch hacked)");
  tree().remove("a\nb\x1b[31m\xff");
  for (const std::vector<std::string> &arguments :
       std::vector<std::vector<std::string>>{{"list", root()}, {"diff", root(), odd}}) {
    const RunResult result = runFset(arguments);
    EXPECT_EQ(result.out.find_first_of("\x1b\xff"), std::string::npos) << result.describe();
    EXPECT_NE(result.out.find("\\xff"), std::string::npos) << result.describe();
  }
  const Json diff = fsetJson({"diff", root(), odd}, 1);
  EXPECT_TRUE(std::string(diff["snapshot"]["name_hex"])
                  .ends_with("6f646420ff1b273b2428746f756368206861636b656429"));
  EXPECT_TRUE(std::any_of(diff["differences"].begin(), diff["differences"].end(), [](const Json &one) {
    return one.value("path_hex", "") == "610a621b5b33316dff" &&
           one["path"] == "a\nb\x1b[31m\xef\xbf\xbd";
  })) << diff.dump(2);
  expectThereAndBack({root()}, root(), odd, snapshotPath("odd \xff\x1b';$(touch hacked)"));
  EXPECT_FALSE(std::filesystem::exists("/hacked"));
}

TEST_F(Fset, CompletionKnowsSnapshotsAndTheirDates) {
  const auto completed = [&](const std::string &line) {
    testsupport::runCommand(
        "PATH=/usr/qtx/kest/bin:$PATH bash -c '. " FSET_COMPLETION " && COMP_WORDS=(" + line +
        ") COMP_TYPE=9 && COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) && _fset 2>/dev/null; "
        "printf \"%s\\n\" \"${COMPREPLY[@]}\" > /mnt/completed'");
    return testsupport::readAll("/mnt/completed");
  };
  EXPECT_EQ(completed("fset re"), "restore\n");
  EXPECT_EQ(completed("fset restore --n"), "--no-backup\n");
  EXPECT_EQ(completed("fset diff " + root() + " " + snapshotName()), snapshotName() + "\n");
  takeSnapshot("snap2");
  const std::string both = completed("fset diff " + root() + " " + snapshotName("sn"));
  EXPECT_TRUE(
      std::regex_match(both, std::regex("(" + snapshotName() + "2?  \\(20[-0-9]+ [:0-9]+\\)\n){2}")))
      << both;
  const std::string other = onCephFs() ? fileset() : snapshotName("snap2");
  EXPECT_EQ(completed("fset list " + root() + " --fileset " + other), other + "\n");
}

TEST_F(Fset, ProgressAndSignalsOfARunningRestore) {
  for (int number = 0; number < 500; ++number)
    tree().file("mail/" + std::to_string(number), std::to_string(number));
  takeSnapshot("many");
  tree().removeTree("mail");
  EXPECT_EQ(fsetJson({"progress", root()}, 1)["running"], false);

  // An engine that sleeps after its work, so that progress can be watched for a while.
  const std::string engine = "/usr/qtx/kest/bin/ktapplypolicy";
  testsupport::runCommand(
      "cp " + engine +
      " /mnt/engine && printf '#!/bin/sh\n/mnt/engine \"$@\"\n"
      "status=$?\nsleep 4\nexit $status\n' > /mnt/resting && chmod +x /mnt/resting");
  ASSERT_EQ(mount("/mnt/resting", engine.c_str(), nullptr, MS_BIND, nullptr), 0);
  RunOptions running;
  running.program = "/usr/qtx/kest/bin/fset";
  testsupport::Running restore({"restore", root(), snapshotName("many"), "--yes"}, running);
  Json progress;
  EXPECT_TRUE(testsupport::waitUntil(
      [&] {
        const RunResult look = runFset({"progress", root(), "--json"});
        progress = Json::parse(look.out, nullptr, false);
        return look.exitStatus == 0 && progress["progress"]["phase"] == 51 &&
               progress["progress"]["done"] > 0;
      },
      30))
      << restore.said();
  EXPECT_GE(progress["progress"]["total"], 500) << progress.dump(2);
  EXPECT_LE(progress["progress"]["done"], progress["progress"]["total"]);
  EXPECT_EQ(fsetJson({"restore", root(), snapshotName("many"), "--yes"}, 1).contains("error"), true)
      << "two at once";
  kill(restore.pid(), SIGTERM);
  EXPECT_TRUE(testsupport::waitUntil([&] { return restore.ended(); }, 30));
  EXPECT_EQ(restore.exitStatus(), 1) << restore.said();
  EXPECT_NE(restore.said().find("Stopped by a signal"), std::string::npos) << restore.said();
  EXPECT_TRUE(restore.living().empty());
  ASSERT_EQ(umount(engine.c_str()), 0);
  EXPECT_EQ(runFset({"restore", root(), snapshotName("many"), "--yes"}).exitStatus, 0);
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName("many"))), fingerprint(root()))), "");
}

}  // namespace
