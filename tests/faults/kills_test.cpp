// Processes of a run are killed or stopped from outside at many moments of a restore, and a second run
// is started beside a running one.
//
// KILLS=500 in the environment: that many kills instead of a few.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include "faults/faults_fixture.h"
#include "support/survival.h"

using namespace faults;

namespace {

class Kills : public Faults {
 protected:
  bool lockIsFree() {
    const int dir = open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool free = flock(dir, LOCK_EX | LOCK_NB) == 0;
    close(dir);
    return free;
  }

  // The lock is released with the last process of the run, and that must end soon.
  void expectDead(Running &run) {
    EXPECT_TRUE(waitUntil([&] { return run.ended() && lockIsFree(); }, 3)) << "the lock is still held";
    std::string left;
    for (const Process &process : run.living())
      left += process.name + " " + readAll("/proc/" + std::to_string(process.pid) + "/stat");
    EXPECT_EQ(left, "") << "after the lock was free";
  }
};

TEST_F(Kills, ThenTheSameCommand) {
  const char *wanted = getenv("KILLS");
  const int most = wanted ? atoi(wanted) : 56;
  ASSERT_GT(most, 0);
  const char *roles[] = {"master", "engine", "worker"};
  std::map<std::string, int> kills;
  std::minstd_rand random(static_cast<unsigned>(most));
  int missed = 0, retried = 0;
  int done = 0;
  while (done < most && missed <= most) {
    const int turn = done + missed;
    const Stage &stage = kStages[turn % static_cast<int>(std::size(kStages))];
    const std::string role =
        stage.masterAlone ? "master" : roles[turn / static_cast<int>(std::size(kStages)) % 3];
    SCOPED_TRACE(std::string(stage.name) + ", " + role + ", turn " + std::to_string(turn));
    prepare();
    auto run = start();
    bool killed = false;
    if (reach(*run, stage)) {
      usleep(static_cast<useconds_t>(random() % 6000));
      const pid_t victim = run->ended() ? 0 : run->find(role);
      // A stopped process never ends by itself, so it shows whether something takes it along.
      const pid_t stopped = role == "worker" || random() % 2 ? 0 : run->find("worker");
      if (stopped > 1) kill(stopped, SIGSTOP);
      killed = victim > 1 && kill(victim, SIGKILL) == 0;
    }
    if (killed && role == "master") expectDead(*run);
    // Otherwise the master continues and repeats what its engine or worker did not do.
    ASSERT_TRUE(waitUntil([&] { return run->ended(); }, 30)) << run->said();
    if (role == "master") killed = run->signalNumber() == SIGKILL;
    if (killed && role != "master") {
      EXPECT_EQ(run->exitStatus(), 0) << run->said();
      retried += run->said().find("retry again") != std::string::npos;
    }
    expectDead(*run);
    EXPECT_TRUE(run->exitStatus() != 0 || equalsSnapshot()) << run->said();
    expectRepairedByNextRun();
    EXPECT_TRUE(workDirs().empty());
    ++(killed ? done : missed);
    if (killed) ++kills[stage.name];
    if (killed) ++kills[std::string(stage.name) + ", " + role];
    if (HasFailure()) return;
  }
  EXPECT_EQ(done, most);
  for (const auto &[what, count] : kills) printf("%5d  %s\n", count, what.c_str());
  for (const Stage &stage : kStages) EXPECT_GT(kills[stage.name], 0) << stage.name;
  printf("%5d of engines or workers that the run made good itself by a retry; %d came too late\n",
         retried, missed);
}

// Two dead runs left their work directories. Then a restore to another snapshot, which shows the state
// before those runs, and one to theirs: objects in the old work directories must be moved and not made
// again, and the old links, lists and destinations must be ignored.
TEST_F(Kills, LeftOversOfSeveralRuns) {
  for (const int stage : {0, 1, 5}) {
    SCOPED_TRACE(kStages[stage].name);
    int dead = 0;
    for (int attempt = 0; attempt < 20 && dead < 2; ++attempt) {
      if (dead == 0) prepare();
      if (dead == 0) takeSnapshot("later");
      auto run = start();
      const bool seen = reach(*run, kStages[stage]);
      if (seen) kill(run->pid(), SIGKILL);
      expectDead(*run);
      dead = seen ? dead + 1 : 0;  // a run that was too fast has restored everything
    }
    ASSERT_EQ(dead, 2);
    const testsupport::TreePrint want = testsupport::fingerprint(fs().path(snapshotName("later")));
    const testsupport::TreePrint left = testsupport::fingerprint(root());
    EXPECT_GE(workDirs().size(), 1u);
    const RunResult result = restore("later");
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    const testsupport::TreePrint after = testsupport::fingerprint(root());
    EXPECT_EQ(testsupport::joined(compare(want, after)), "") << result.describe();
    EXPECT_EQ(testsupport::joined(remadeOrTouched(want, left, after, false)), "") << result.describe();
    expectRepairedByNextRun();
  }
}

TEST_F(Kills, ASecondRunIsRefused) {
  prepare();
  const std::string other = "/mnt/other";
  testsupport::runCommand("mkdir -p " + other + " && mount -t btrfs $(findmnt -no SOURCE " +
                          fs().mountPoint() + ") " + other);
  auto first = start();
  ASSERT_TRUE(reach(*first, kStages[1]));
  for (int round = 0; round < 3; ++round)  // also processes that were just being started
    for (const Process &process : first->living()) kill(process.pid, SIGSTOP);
  bool engine = false;
  for (const Process &process : first->living()) {
    bool holds = false;
    for (const auto &fd :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process.pid) + "/fd"))
      holds = holds || std::filesystem::read_symlink(fd) == root();
    EXPECT_TRUE(holds) << process.name << " does not hold the lock";
    engine = engine || process.name == "ktapplypolicy";
  }
  EXPECT_TRUE(engine);

  const testsupport::TreePrint before = testsupport::fingerprint(root());
  for (const std::string &device : {fs().mountPoint(), other}) {
    const RunResult second = testsupport::runRestore(device, fileset(), snapshotName());
    EXPECT_EQ(second.exitStatus, 1) << second.describe();
    EXPECT_LT(second.seconds, 1);
    EXPECT_NE(second.err.find("Another restore of the fileset " + fileset() + " is running"),
              std::string::npos)
        << second.describe();
  }
  EXPECT_EQ(testsupport::joined(compare(before, testsupport::fingerprint(root()))), "");
  EXPECT_EQ(workDirs().size(), 1u);

  for (const Process &process : first->living()) kill(process.pid, SIGCONT);
  ASSERT_TRUE(waitUntil([&] { return first->ended(); }, 30));
  EXPECT_EQ(first->exitStatus(), 0) << first->said();
  expectDead(*first);
  testsupport::runCommand("umount " + other);
  expectRepairedByNextRun();
}

TEST_F(Kills, SignalsEndTheRunAndSayWhatIsLeft) {
  const Stage *stages[] = {&kStages[0], &kStages[1], &kStages[3], &kStages[6]};
  int stopped = 0;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    for (const Stage *stage : stages) {
      SCOPED_TRACE(std::string(strsignal(number)) + ", " + stage->name);
      auto run = startUntil(*stage);
      ASSERT_TRUE(run);
      kill(run->pid(), number);
      ASSERT_TRUE(waitUntil([&] { return run->ended(); }, 3)) << run->said();
      expectDead(*run);
      const std::string said = run->said();
      if (run->exitStatus() != 0) {  // 0: the run was already at its end
        ++stopped;
        EXPECT_EQ(run->exitStatus(), 1);
        EXPECT_NE(said.find("Stopped by a signal (" + std::string(strsignal(number)) +
                            "). The fileset " + fileset() + " is partly restored"),
                  std::string::npos)
            << said;
        ASSERT_EQ(workDirs().size(), 1u);
        EXPECT_NE(said.find(workDirs()[0] + " stays"), std::string::npos) << said;
        EXPECT_EQ(said.find("retry again"), std::string::npos) << said;
      }
      expectRepairedByNextRun();
    }
  }
  EXPECT_GE(stopped, 4);  // some signals come too late; rarely more than a few of twelve
}

TEST_F(Kills, WorkDirectoryIsRootsAlone) {
  auto run = startUntil(kStages[1]);
  ASSERT_TRUE(run);
  kill(run->pid(), SIGKILL);
  expectDead(*run);
  ASSERT_EQ(workDirs().size(), 1u);
  struct stat st;
  ASSERT_EQ(stat(workDirs()[0].c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(st.st_uid, 0u);
  // Another user must not be able to list it.
  testsupport::runCommand("chmod 755 " + root() + " && ! setpriv --reuid=1234 --clear-groups ls " +
                          workDirs()[0] + " 2>&1");
  expectRepairedByNextRun();
}

// The signal does not wait for the end of a phase: records that workers have not begun stay undone.
TEST_F(Kills, SignalsEndALongPhaseAtOnce) {
  constexpr int kFiles = 1500;
  prepare();
  for (int i = 0; i < kFiles; ++i) tree().file("new" + std::to_string(i));
  auto run = start();
  ASSERT_TRUE(reach(*run, kStages[1]));
  kill(run->pid(), SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return run->ended(); }, 3)) << run->said();
  EXPECT_EQ(run->exitStatus(), 1);
  expectDead(*run);
  int left = 0;
  for (int i = 0; i < kFiles; ++i)
    left += access((root() + "/new" + std::to_string(i)).c_str(), F_OK) == 0;
  EXPECT_GT(left, 0);
  expectRepairedByNextRun();
}

TEST_F(Kills, IgnoredHangUpStaysIgnored) {
  prepare();
  signal(SIGHUP, SIG_IGN);  // inherited by the run
  auto run = start();
  signal(SIGHUP, SIG_DFL);
  ASSERT_TRUE(reach(*run, kStages[1]));
  kill(run->pid(), SIGHUP);
  ASSERT_TRUE(waitUntil([&] { return run->ended(); }, 30));
  EXPECT_EQ(run->exitStatus(), 0) << run->said();
  expectRepairedByNextRun();
}

}  // namespace
