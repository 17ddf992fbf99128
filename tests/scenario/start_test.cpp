// How a run starts: what it refuses before its first change, and where it puts its work directory.
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
  // Installs everything under test in the fileset.
  void install() {
    namespace stdfs = std::filesystem;
    stdfs::copy(kCommands, root() + "/bin", stdfs::copy_options::recursive);
    tree().dir("lib");
    stdfs::copy_file(library_, inside());
  }
  std::string inside() const {  // the library's name in the fileset
    return root() + "/lib/" + std::filesystem::path(library_).filename().string();
  }
  // Expects exit status 1, the text that names the file, and no change at all, not even of a timestamp.
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
  expectRestored();  // with a program outside the fileset
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

  // Upgraded since the snapshot: another file of the same name.
  tree().rename("bin/fsetrestore", "bin/old");
  std::filesystem::copy_file(root() + "/bin/old", root() + "/bin/fsetrestore");
  expectRefused(running.program, running);
}

TEST_F(Start, TakenNamesOfTheWorkDirectoryArePassedOver) {
  constexpr int kTaken = 400;
  takeSnapshot();
  // Process IDs are consecutive, so the run's will be one of these.
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

// The start names what keeps a process from restoring or comparing, and nothing is touched.
TEST_F(Start, WhatTheProcessLacksIsNamed) {
  const std::string all[] = {fs().mountPoint(), "-j", fileset(), "-o", snapshotName()};
  const auto run = [&](const std::string &program, std::vector<std::string> arguments, const char *of) {
    arguments.push_back(std::string(kCommands) + "/" + of);
    arguments.insert(arguments.end(), std::begin(all), std::end(all));
    return testsupport::runProgram(arguments, {.program = program});
  };
  takeSnapshot();
  tree().append("f", "more");
  TreePrint before = fingerprint(root());
  const auto expectTold = [&](const RunResult &result, int status, const std::string &text) {
    EXPECT_EQ(result.exitStatus, status) << result.describe();
    EXPECT_NE(result.err.find(text), std::string::npos) << text << "\n" << result.err;
    EXPECT_EQ(joined(compare(before, fingerprint(root()))), "");
  };
  for (const std::string name : {"dac_read_search", "dac_override", "sys_admin", "linux_immutable"}) {
    const std::vector<std::string> without{"--bounding-set=-" + name, "--inh-caps=-" + name};
    std::string upper = name;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    expectTold(run("/usr/bin/setpriv", without, "fsetrestore"), 1, "lacks CAP_" + upper + ".");
  }
  const std::vector<std::string> nobody{"--reuid=65534", "--regid=65534", "--clear-groups"};
  expectTold(run("/usr/bin/setpriv", nobody, "fsetrestore"), 1, "lacks CAP_SYS_ADMIN, CAP_DAC_READ");
  expectTold(run("/usr/bin/setpriv", nobody, "fsetcompare"), 2, "CAP_DAC_READ_SEARCH. Run it as root");
  expectTold(run("/usr/bin/unshare", {"--user", "--map-root-user"}, "fsetrestore"), 1,
             "user namespace");
  for (const char *limit : {"--nofile=10", "--nofile=18"})
    expectTold(run("/usr/bin/prlimit", {limit}, "fsetrestore"), 1, "(ulimit -n)");
  // A low limit that can be raised is no reason to refuse.
  EXPECT_EQ(run("/usr/bin/prlimit", {"--nofile=32:4096"}, "fsetrestore").exitStatus, 0);
  expectRestored();
}

TEST_F(Start, WhateverPosixlyCorrectSays) {
  takeSnapshot();
  tree().append("f", "more");
  RunOptions strict{.environment = {{"POSIXLY_CORRECT", "1"}}};
  expectRestored("snap", {}, strict);
  strict.program = std::string(kCommands) + "/fsetcompare";
  const RunResult compared = testsupport::runProgram(
      {fs().mountPoint(), "-j", fileset(), "-o", snapshotName(), "--full"}, strict);
  EXPECT_EQ(compared.exitStatus, 0) << compared.describe();
}

// Each command that fails prints the reason.
TEST_F(Start, FailuresHaveAReason) {
  takeSnapshot();
  tree().append("f", "more");
  const RunResult unknown = testsupport::runRestore(fs().mountPoint(), "nosuch", "snap");
  EXPECT_NE(unknown.err.find("snapshot none (the active fileset)"), std::string::npos) << unknown.err;
  TreeBuilder("/mnt").file("failing", "#!/bin/sh\necho the reason >&2\nexit 3\n");
  TreeBuilder("/mnt").chmod("failing", 0755);
  for (const char *name : {"ktlsfileset", "ktfsctl"}) {
    const std::string command = std::string(kCommands) + "/" + name;
    ASSERT_EQ(mount("/mnt/failing", command.c_str(), nullptr, MS_BIND, nullptr), 0);
    const RunResult result = restore();
    ASSERT_EQ(umount(command.c_str()), 0);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    for (const std::string text : {"the reason\n", "ended with exit status 3."})
      EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("OVRA"), std::string::npos) << result.err;
  }
  expectRestored();
}

TEST_F(Start, NobodyNeedsToReadTheMessages) {
  takeSnapshot();
  tree().remove("f");
  testsupport::runCommand(std::string(testsupport::kRestoreProgram) + " " + fs().mountPoint() + " -j " +
                          fileset() + " -o " + snapshotName() + " 2>&1 | true");
  EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))), "");
}

TEST_F(Start, LimitsOfTheProcessAreErrorsAndNoSignals) {
  for (int i = 0; i < 1500; ++i) tree().file("file of a list that is long " + std::to_string(i));
  takeSnapshot();
  for (const std::string &name : tree().names("")) tree().remove(name);
  const std::pair<const char *, const char *> limits[] = {
      {"ulimit -f 16", ": File too large\n"},
      {"ulimit -s 64", "The stack is limited to 64 KiB; deep trees need 4096."}};
  for (const auto &[limit, message] : limits) {
    RunOptions shell;
    shell.program = "/bin/sh";
    const RunResult result = testsupport::runProgram(
        {"-c", std::string(limit) + "; exec " + testsupport::kRestoreProgram + " " + fs().mountPoint() +
                   " -q -j " + fileset() + " -o " + snapshotName()},
        shell);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
  }
  expectRestored();
}

}  // namespace
