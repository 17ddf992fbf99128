// How a run starts: what it refuses before anything is touched, and where its work directory goes.
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "scenario/restore_fixture.h"

using namespace scenario;
using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;

namespace {

const char kCommands[] = "/usr/qtx/kest/bin";

class Start : public RestoreFixture {
 protected:
  void SetUp() override {
    RestoreFixture::SetUp();
    tree().file("f", "text");
    testsupport::runCommand(std::string("ldd ") + testsupport::kRestoreProgram +
                            " | sed -n 's/.*libkest[^ ]* => \\([^ ]*\\) .*/\\1/p' | tr -d '\\n'" +
                            " > /mnt/library");
    library_ = TreeBuilder("/mnt").read("library");
    ASSERT_FALSE(library_.empty()) << "the program loads no libkest";
  }
  // A whole installation of what is under test, in the fileset.
  void install() {
    namespace stdfs = std::filesystem;
    stdfs::copy(kCommands, root() + "/bin", stdfs::copy_options::recursive);
    tree().dir("lib");
    stdfs::copy_file(library_, inside());
  }
  std::string inside() const {  // of the fileset: the library's name there
    return root() + "/lib/" + std::filesystem::path(library_).filename().string();
  }
  // exit 1, the text that names the file, and not even a time stamp changed.
  void expectRefused(const std::string &file, const RunOptions &running) {
    TreePrint before = fingerprint(root());
    RunResult result = restore("snap", {}, running);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find(file), std::string::npos) << file << " is not named\n" << result.err;
    TreePrint after = fingerprint(root());
    EXPECT_EQ(joined(compare(before, after)), "");
    for (const auto &[path, object] : before.objects)
      EXPECT_EQ(object.ctime.tv_nsec, after.objects[path].ctime.tv_nsec) << path << " was touched";
  }
  RunOptions withLibraryInside() const {
    RunOptions running;
    running.environment = {{"LD_LIBRARY_PATH", root() + "/lib"}};
    return running;
  }

  std::string library_;
};

TEST_F(Start, WhatWouldRemoveTheProgramItselfIsRefused) {
  takeSnapshot();
  install();
  RunOptions running;
  running.program = root() + "/bin/fsetrestore";
  expectRefused(running.program, running);
  expectRefused(inside(), withLibraryInside());

  std::filesystem::copy_file(running.program, "/mnt/elsewhere");
  running.program = "/mnt/elsewhere";
  ASSERT_EQ(mount((root() + "/bin").c_str(), kCommands, nullptr, MS_BIND, nullptr), 0);
  expectRefused(std::string(kCommands) + "/kt", running);
  ASSERT_EQ(umount(kCommands), 0);
  std::filesystem::remove("/mnt/elsewhere");
  expectRestored();  // with a program that lies elsewhere
}

TEST_F(Start, ProgramThatTheSnapshotHoldsTooCanRunFromTheFileset) {
  install();
  takeSnapshot();
  tree().remove("f");
  RunOptions running = withLibraryInside();
  running.program = root() + "/bin/fsetrestore";
  RunResult result = restore("snap", {}, running);
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))), "");

  // Upgraded since: another file of the same name.
  tree().rename("bin/fsetrestore", "bin/old");
  std::filesystem::copy_file(root() + "/bin/old", root() + "/bin/fsetrestore");
  expectRefused(running.program, running);
}

TEST_F(Start, TakenNamesOfTheWorkDirectoryArePassedOver) {
  constexpr int kTaken = 400;
  takeSnapshot();
  // Processes are numbered in a row: the run's number is among these.
  pid_t next = fork();
  if (next == 0) _exit(0);
  ASSERT_EQ(waitpid(next, nullptr, 0), next);
  for (int number = next; number < next + kTaken; ++number) {
    const std::string name = "RestoreTemp" + std::to_string(number);
    if (number % 2) {
      tree().file(name, "a user's file");
    } else {
      tree().dirs(name + "/opList/of/a user");
    }
  }
  RunResult result = restore("snap", {"-k"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  const std::string free = "RestoreTemp" + std::to_string(next + kTaken);
  EXPECT_EQ(tree().names(""), (std::vector<std::string>{free, "f"})) << result.describe();
  expectRestored();
}

TEST_F(Start, OtherNodesAreRefusedAtOnceAndLongListsAreAUsageError) {
  takeSnapshot();
  tree().remove("f");
  RunResult result = restore("snap", {"-N", std::string(1024, 'n')});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err.rfind("Usage ", 0), 0u) << result.err;
  for (const std::string &nodes : {std::string(1023, 'n'), std::string("localhost,other")}) {
    result = restore("snap", {"-N", nodes});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err.rfind("The node \"" + nodes.substr(nodes.find(',') + 1, 5), 0), 0u)
        << result.err;
    EXPECT_EQ(tree().names(""), std::vector<std::string>{});
  }
}

TEST_F(Start, RootKeepsItsFlagWhenTheRunEndsBeforeTheFirstPass) {
  takeSnapshot();
  tree().write("f", 0, "TEXT");
  tree().immutable("");
  auto expectUntouched = [&](const RunResult &result) {
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_EQ(fingerprint(root()).objects[""].flags & FS_IMMUTABLE_FL, unsigned{FS_IMMUTABLE_FL});
    EXPECT_EQ(tree().read("f"), "TEXT");
  };
  for (const char *option : {"-m", "-B", "-b"}) expectUntouched(restore("snap", {option, "0"}));
  // A file system that cannot be committed.
  const std::string control = std::string(kCommands) + "/ktfsctl";
  ASSERT_EQ(mount("/bin/false", control.c_str(), nullptr, MS_BIND, nullptr), 0);
  RunResult result = restore();
  ASSERT_EQ(umount(control.c_str()), 0);
  expectUntouched(result);
  EXPECT_NE(result.err.find("Failed to sync the fileset."), std::string::npos) << result.err;
  expectRestored();
}

TEST_F(Start, NobodyNeedsToReadTheMessages) {
  takeSnapshot();
  tree().remove("f");
  testsupport::runCommand(std::string(testsupport::kRestoreProgram) + " " + fs().mountPoint() + " -j " +
                          fileset() + " -o " + snapshotName() + " 2>&1 | true");
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))), "");
}

}  // namespace
