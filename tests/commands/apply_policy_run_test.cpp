// The policy engine with real workers (policy_worker.sh).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string slurp(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string record(int aggregate, int inode, const std::string &path) {
  char head[100];
  snprintf(head, sizeof(head), "%d:0:%11x:0:0:0:0:0:%zu!", aggregate, inode, path.size());
  return head + path + ":0!;9!7,0,0,0,0\n";
}

bool waitFor(const std::function<bool()> &condition) {
  for (int i = 0; i < 500; i++) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

class PolicyRun : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/mnt/policy-run-XXXXXX";
    ASSERT_TRUE(mkdtemp(name));
    top_ = name + std::string("/");
    g_ = top_ + "g";
    out_ = top_ + "out";
    keep_ = "keep " + out_;
    fs::create_directory(g_);
    fs::create_directory(out_);
  }
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(g_)) << "batch files left behind";
    fs::remove_all(top_);
  }

  // Writes a policy whose script gets these options, and a list of `records` records, each its own
  // aggregate.
  // Returns the command line that runs them.
  std::string command(const std::string &name, const std::string &options, int records,
                      const std::string &flags, const std::string &script = POLICY_WORKER) {
    std::string quoted;
    for (char c : options) quoted += c == '\'' ? "''" : std::string(1, c);
    const std::string policy = top_ + name + ".policy", list = top_ + name + ".list";
    std::ofstream(policy) << "RULE EXTERNAL LIST 'all' EXEC '" << script << "' OPTS '" << quoted << "'";
    std::ofstream out(list);
    for (int i = 0; i < records; i++) out << record(i, 256 + i, "/path " + std::to_string(i));
    return "/usr/qtx/kest/bin/ktapplypolicy /mnt -P " + policy + " -g " + g_ + " -r " + list + " " +
           flags;
  }

  // Runs a shell command and returns its exit status; said() returns its output.
  int shell(const std::string &line) {
    int status = system((line + " > " + top_ + "said 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string said() { return slurp(top_ + "said"); }
  void expectSaid(const std::string &text) {
    EXPECT_NE(said().find(text), std::string::npos) << text << "\n" << said();
  }

  std::vector<pid_t> holding() {
    std::vector<pid_t> pids;
    for (const fs::path &path : fs::directory_iterator(out_))
      pids.push_back(std::stoi(path.filename()));
    return pids;
  }
  // Runs the line and checks how many workers were busy: the most at the same time, and all.
  void expectBusy(int budget, const std::string &line, int most, int all) {
    ASSERT_EQ(shell("KT_MAX_WORKERS=" + std::to_string(budget) + " " + line), 0) << said();
    int now = -1, most_seen = -1, all_seen = -1;
    std::ifstream(out_ + "/count") >> now >> most_seen >> all_seen;
    EXPECT_EQ((std::array{now, most_seen, all_seen}), (std::array{0, most, all}));
    fs::remove(out_ + "/count");
  }
  // For an engine that was killed before it could remove them.
  void removeBatchFiles() {
    for (const auto &entry : fs::directory_iterator(g_)) fs::remove(entry.path());
  }

  std::string top_, g_, out_, keep_;
};

TEST_F(PolicyRun, OnlyItsOwnDirectory) {
  const std::string good = command("a", keep_, 3, "");
  struct stat st;
  ASSERT_EQ(stat(g_.c_str(), &st), 0);
  const std::string identity = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  EXPECT_EQ(shell("KT_DIRECTORY=" + identity + " " + good), 0) << said();
  EXPECT_EQ(shell("KT_DIRECTORY=" + identity + "0 " + good), 1);
  EXPECT_EQ(shell("chown 1234 " + g_ + "; " + good), 1);
  ASSERT_EQ(shell("chown 0 " + g_), 0);
  for (const std::string &path : {g_, top_ + "a.policy", top_ + "a.list"}) {
    EXPECT_EQ(shell("chmod o+w " + path + "; " + good), 1) << path;
    EXPECT_EQ(shell("chmod o-w " + path + "; mv " + path + " " + path + ".2; ln -s " + path + ".2 " +
                    path + "; " + good),
              1)
        << path;
    EXPECT_EQ(shell("rm " + path + "; mv " + path + ".2 " + path + "; " + good), 0) << said();
  }
}

TEST_F(PolicyRun, EveryRecordOnceAndNoneAppendedDuringTheRun) {
  std::string line =
      command("a", "append " + out_ + " " + top_ + "a.list '" + record(5000, 9, "/late") + "'", 0,
              "-B 10 -m 3 -N all");
  std::string list;
  std::multiset<std::string> got, expected;
  for (int i = 0; i < 500; i++) {
    list += record(i / 7, 256 + i, "/p:!\n\\" + std::to_string(i));
    expected.insert(std::to_string(256 + i) + " 0 0  7,0,0,0,0 -- /p:!\\n\\\\" + std::to_string(i));
  }
  std::ofstream(top_ + "a.list") << list;
  ASSERT_EQ(shell(line), 0) << said();
  EXPECT_EQ(said().substr(0, 15), "500 records in ") << said();
  for (const auto &entry : fs::directory_iterator(out_)) {
    std::ifstream batch(entry.path());
    for (std::string text; std::getline(batch, text);) got.insert(text);
  }
  EXPECT_EQ(got, expected);
}

TEST_F(PolicyRun, LimitsOfWorkers) {
  std::string busy = "busy " + out_ + "/count 0.02";
  expectBusy(8, command("a", busy, 30, "-B 1 -m 3"), 3, 30);
  expectBusy(2, command("a", busy, 30, "-B 1 -m 30"), 2, 30);
}

// Two levels of nesting. Each asks for more workers than the budget has.
TEST_F(PolicyRun, NestedRunsShareOneBudget) {
  std::string leaf = command("leaf", "busy " + out_ + "/count 0.005", 6, "-B 1 -m 32");
  std::string middle = command("middle", "shell '" + leaf + " > /dev/null'", 3, "-B 1 -m 32");
  std::string outer = command("outer", "shell '" + middle + " > /dev/null'", 4, "-B 1 -m 32");
  for (int budget : {1, 3}) expectBusy(budget, "timeout 20 " + outer, budget, 4 * 3 * 6);
}

TEST_F(PolicyRun, SlotsOfTheKilledComeBack) {
  std::string killed = command("killed", "shell 'kill -9 $PPID'", 1, "");
  std::string killed_engine = command("engine", "shell 'kill -9 $(ps -o ppid= -p $PPID)'", 1, "");
  std::string good = command("good", keep_, 2, "-B 1");
  std::ofstream(top_ + "script") << killed << "; test $? = 1 || exit 71\n"
                                 << killed_engine << "; test $? = 137 || exit 72\n"
                                 << "exec " << good << "\n";
  std::string outer = command("outer", "shell '. " + top_ + "script'", 1, "");
  EXPECT_EQ(shell("KT_MAX_WORKERS=1 timeout 20 " + outer), 0) << said();
  EXPECT_EQ(holding().size(), 2u);
  removeBatchFiles();
}

TEST_F(PolicyRun, LostWorkerFailsTheRunOnceItsProcessesHaveEnded) {
  EXPECT_EQ(shell(command("a", "leave " + out_ + "/left 0.3", 40, "-B 1 -m 1")), 1);
  EXPECT_EQ(slurp(out_ + "/left"), "done");
  expectSaid("killed by signal 9");
  // Nothing was started after the failure.
  expectSaid("1 records in 1 batches, 1 failed");
  EXPECT_EQ(shell(command("a", "shell 'exit 3'", 2, "-B 1 -m 1")), 1);
  expectSaid("ended with status 3");
}

TEST_F(PolicyRun, NoSpaceForBatchFiles) {
  std::string full = top_ + "full";
  fs::create_directory(full);
  ASSERT_EQ(mount("none", full.c_str(), "tmpfs", 0, "size=4k,mode=755"), 0);
  EXPECT_EQ(shell(command("a", keep_, 1000, "-g " + full + " -B 500")), 28) << said();
  EXPECT_TRUE(fs::is_empty(full));
  EXPECT_EQ(umount(full.c_str()), 0);
}

TEST_F(PolicyRun, KilledEngineLeavesNoWorker) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::string plain = command("plain", "hold " + out_, 20, "-B 1 -m 2");
  std::string nested = command("nested", "hold " + out_, 1, "");
  std::string outer = command("outer", "shell '" + nested + "'", 2, "-B 1 -m 2");
  struct {
    std::string line;
    int signal, status;
  } cases[] = {{plain, SIGKILL, SIGKILL}, {outer, SIGKILL, SIGKILL}, {plain, SIGTERM, 1 << 8}};
  for (const auto &one : cases) {
    const std::string line = "KT_MAX_WORKERS=2 exec " + one.line + " > " + top_ + "said 2>&1";
    pid_t engine = fork();
    if (engine == 0) _exit(execl("/bin/sh", "sh", "-c", line.c_str(), nullptr));
    ASSERT_TRUE(waitFor([&] { return holding().size() == 2; }));
    kill(engine, one.signal);
    int status = 0;
    ASSERT_EQ(waitpid(engine, &status, 0), engine);
    EXPECT_EQ(status, one.status);
    EXPECT_TRUE(waitFor([&] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
    EXPECT_EQ(holding().size(), 2u);
    for (pid_t pid : holding()) {
      EXPECT_NE(kill(pid, 0), 0) << pid;
      fs::remove(out_ + "/" + std::to_string(pid));
    }
  }
  removeBatchFiles();
}

// A shell that becomes the engine by exec may have children, for which the engine must not wait.
TEST_F(PolicyRun, EarlierChildrenAreNotAwaited) {
  std::string good = command("good", keep_, 2, "");
  std::string sleeper = top_ + "sleeper";
  EXPECT_EQ(shell("timeout 5 sh -c 'sleep 60 & echo $! > " + sleeper + "; exec " + good + "'"), 0)
      << said();
  kill(std::stoi(slurp(sleeper)), SIGTERM);
}

TEST_F(PolicyRun, RefusedBeforeAnythingStarts) {
  std::string good = command("a", keep_, 2, "");
  struct {
    std::string line, says;
  } cases[] = {
      {command("probe", keep_, 2, "", "/bin/false"), "TEST failed"},
      {command("exec", keep_, 2, "", "/no/such/program"),
       "cannot start /no/such/program: No such file"},
      {good + "-m 0", "-m needs"},
      {good + "-N elsewhere", "\"elsewhere\" is not this machine"},
      {good + "other", "exactly one device"},
      {good + "-r /no/list", "/no/list: No such file"},
      {good + "-g /no/directory", "/no/directory: No such file"},
      {good + "-P /no/policy", "/no/policy: No such file"},
      {"KT_MAX_WORKERS=0 " + good, "KT_MAX_WORKERS must be a number"},
      // A worker whose engine has died must not become an outermost run.
      {"KT_WORKER_SLOT=" + std::to_string(getpid()) + ":3:0:0 " + good,
       "(process " + std::to_string(getpid()) + ") has ended"},
  };
  for (const auto &one : cases) {
    EXPECT_EQ(shell(one.line), 1) << one.line;
    expectSaid(one.says);
  }
  std::string line = command("cut", keep_, 2, "");
  fs::resize_file(top_ + "cut.list", fs::file_size(top_ + "cut.list") - 1);
  EXPECT_EQ(shell(line), 1);
  expectSaid("at byte " + std::to_string(fs::file_size(top_ + "cut.list")));
  EXPECT_TRUE(fs::is_empty(out_));
  EXPECT_EQ(shell(command("empty", keep_, 0, "")), 0) << said();
}

}  // namespace
