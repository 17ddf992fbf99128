// Files in use: running programs, leases of file servers, swap space.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/swap.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

#include "scenario/restore_fixture.h"

using namespace scenario;
using testsupport::compare;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::Running;

namespace {

class BusyFiles : public RestoreFixture {
 protected:
  void expectEqual() {
    EXPECT_EQ(joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))), "");
  }
};

using Programs = BusyFiles;

// Overwrites the file in place with a copy of a program, which then runs.
void overwrite(TreeBuilder &t, const std::string &path) {
  std::filesystem::copy_file("/bin/sleep", t.root() + "/" + path,
                             std::filesystem::copy_options::overwrite_existing);
  t.append(path, "newer");
}

TEST_F(Programs, AreMadeAnewWithAllNamesWhereTheyWouldBeWritten) {
  TreeBuilder &t = tree();
  t.dir("d");
  for (const char *name : {"linked", "moved", "d/fixed", "same data", "d/cut"})
    std::filesystem::copy_file("/bin/sleep", root() + "/" + name);
  t.link("linked", "d/second");
  t.link("linked", "d/third");
  t.immutable("d/fixed");
  takeSnapshot();
  t.immutable("d/fixed", false);
  for (const char *name : {"linked", "moved", "d/fixed", "d/cut"}) overwrite(t, name);
  t.immutable("d/fixed");
  t.remove("d/third");
  t.dir("new");
  t.rename("moved", "new/moved");
  t.chmod("same data", 0700);
  const ino_t untouched = t.inode("same data");
  std::vector<std::unique_ptr<Running>> programs;
  for (const char *name : {"linked", "new/moved", "d/fixed", "same data", "d/cut"}) {
    RunOptions options;
    options.program = root() + "/" + name;
    programs.push_back(std::make_unique<Running>(std::vector<std::string>{"100"}, options));
    const std::string exe = "/proc/" + std::to_string(programs.back()->pid()) + "/exe";
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return std::filesystem::read_symlink(exe) == options.program; }, 10));
  }
  const RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  for (const char *name : {"linked", "new/moved", "d/fixed", "d/cut"})
    EXPECT_NE(result.err.find(root() + "/" + name + " runs and cannot be written"), std::string::npos)
        << result.err;
  EXPECT_EQ(result.err.find("same data runs"), std::string::npos);
  expectEqual();
  EXPECT_EQ(t.inode("same data"), untouched);
  for (const auto &program : programs) EXPECT_FALSE(program->ended());
}

using Swap = BusyFiles;

TEST_F(Swap, EndsTheRunWhereItIsNewOrDiffers) {
  struct Active {  // ends with the test in any case
    explicit Active(const std::string &file) : path(file) { EXPECT_EQ(swapon(path.c_str(), 0), 0); }
    ~Active() { swapoff(path.c_str()); }
    const std::string path;
  };
  const auto fill = [&](const char *name) {
    tree().write(name, 0, std::string(1 << 20, '\0'));
    testsupport::runCommand("mkswap -q " + root() + "/" + name);
    fs().commit();
  };
  tree().file("old", "", 0600);
  tree().noCow("old");
  fill("old");
  tree().file("other", "text");
  takeSnapshot();
  tree().append("other", "more");
  tree().file("new", "", 0600);
  tree().noCow("new");
  for (const char *name : {"old", "new"}) {
    fill(name);
    const Active swap(root() + "/" + name);
    const RunResult result = restore();
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find(swap.path + " is active swap space"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("swapoff"), std::string::npos);
    EXPECT_EQ(tree().read("other"), "textmore");
    EXPECT_EQ(tree().names(""), (std::vector<std::string>{"new", "old", "other"}));
  }
  EXPECT_EQ(restore().exitStatus, 0);
  expectEqual();
}

// A process that holds leases and never gives one up.
class LeaseHolder {
 public:
  LeaseHolder(const std::vector<std::string> &paths, int kind) {
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      signal(SIGIO, SIG_IGN);
      bool all = true;
      for (const std::string &path : paths)
        all = all && fcntl(open(path.c_str(), O_RDONLY | O_CLOEXEC), F_SETLEASE, kind) == 0;
      if (all) (void)!write(ready[1], "x", 1);
      close(ready[1]);
      pause();
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "no lease";
    close(ready[0]);
  }
  ~LeaseHolder() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

class Leases : public BusyFiles {
 protected:
  static constexpr char kBreakTime[] = "/proc/sys/fs/lease-break-time";
  void SetUp() override {
    RestoreFixture::SetUp();
    std::ifstream(kBreakTime) >> before_;
    std::ofstream(kBreakTime) << 1;
  }
  void TearDown() override {
    std::ofstream(kBreakTime) << before_;
    RestoreFixture::TearDown();
  }

 private:
  int before_ = 45;
};

TEST_F(Leases, AreWaitedForAndBroken) {
  constexpr int kFiles = 12;
  std::vector<std::string> read, written, snapshots;
  const auto name = [](const char *kind, int i) { return kind + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i)
    for (const char *kind : {"changed", "grown", "deleted"}) tree().big(name(kind, i), 20000, 1);
  takeSnapshot();
  for (int i = 0; i < kFiles; ++i) {
    tree().write(name("changed", i), 5000, "new");
    tree().append(name("grown", i), "more");
    tree().remove(name("deleted", i));
    read.push_back(root() + "/" + name("changed", i));
    written.push_back(root() + "/" + name("grown", i));
    for (const char *kind : {"changed", "deleted"})
      snapshots.push_back(fs().path(snapshotName()) + "/" + name(kind, i));
  }
  {
    const LeaseHolder few({written[0], snapshots[0]}, F_WRLCK);
    RunOptions comparing;
    comparing.program = "/usr/qtx/kest/bin/fsetcompare";
    const RunResult result =
        testsupport::runRestore(fs().mountPoint(), fileset(), snapshotName(), {"--full"}, comparing);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
  }
  const LeaseHolder readers(read, F_RDLCK), writers(written, F_WRLCK), inSnapshot(snapshots, F_WRLCK);
  const RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_LT(result.seconds, 10) << "one after the other";
  expectEqual();
}

}  // namespace
