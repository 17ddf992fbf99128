// The policy engine with real workers (policy_worker).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
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
    top_ = name;
    fs::create_directory(top_ / "g");
    fs::create_directory(top_ / "out");
  }
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(top_ / "g")) << "batch files left behind";
    fs::remove_all(top_);
  }

  // A policy whose script gets these options, and a list of `records` records in aggregates of one.
  // The command line that runs it.
  std::string command(const std::string &name, const std::string &options, int records,
                      const std::string &flags, const std::string &script = POLICY_WORKER) {
    std::string quoted;
    for (char c : options) quoted += c == '\'' ? "''" : std::string(1, c);
    std::ofstream(top_ / (name + ".policy"))
        << "RULE EXTERNAL LIST 'all'  EXEC '" << script << "' OPTS ' " << quoted << "'\n"
        << "          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n";
    std::ofstream list(top_ / (name + ".list"));
    for (int i = 0; i < records; i++) list << record(i, 256 + i, "/path " + std::to_string(i));
    return "/usr/qtx/kest/bin/ktapplypolicy /mnt -P " + (top_ / (name + ".policy")).string() + " -g " +
           (top_ / "g").string() + " -r " + (top_ / (name + ".list")).string() + " " + flags;
  }

  // Exit status of a shell command; what it says is in the file `said`.
  int shell(const std::string &line) {
    int status = system((line + " > " + (top_ / "said").string() + " 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string said() { return slurp(top_ / "said"); }

  pid_t startEngine(const std::string &line) {
    pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/sh", "sh", "-c", ("exec " + line + " 2>/dev/null >&2").c_str(), nullptr);
      _exit(127);
    }
    return pid;
  }

  std::vector<pid_t> pidsIn(const fs::path &directory) {
    std::vector<pid_t> pids;
    for (const auto &entry : fs::directory_iterator(directory)) {
      pids.push_back(std::stoi(entry.path().filename()));
    }
    return pids;
  }
  int number(const char *file, int field) {
    std::istringstream in(slurp(top_ / file));
    int value = -1;
    for (int i = 0; i <= field; i++) in >> value;
    return value;
  }

  fs::path top_;
};

TEST_F(PolicyRun, OnlyItsOwnDirectory) {
  const std::string good = command("a", "keep " + (top_ / "out").string(), 3, ""),
                    g = (top_ / "g").string();
  struct stat st;
  ASSERT_EQ(stat(g.c_str(), &st), 0);
  const std::string identity = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  EXPECT_EQ(shell("KT_DIRECTORY=" + identity + " " + good), 0) << said();
  EXPECT_EQ(shell("KT_DIRECTORY=" + identity + "0 " + good), 1);
  EXPECT_EQ(shell("chmod g+w " + g + "; " + good), 1);
  EXPECT_EQ(shell("chmod g-w " + g + "; chown 1234 " + g + "; " + good), 1);
  EXPECT_EQ(shell("chown 0 " + g + "; mv " + g + " " + g + "2; ln -s g2 " + g + "; " + good), 1);
  EXPECT_EQ(shell("rm " + g + "; mv " + g + "2 " + g + "; " + good), 0) << said();
  for (const char *file : {"a.policy", "a.list"}) {
    const std::string path = (top_ / file).string();
    EXPECT_EQ(shell("chmod o+w " + path + "; " + good), 1) << file;
    EXPECT_EQ(shell("chmod o-w " + path + "; mv " + path + " " + path + ".2; ln -s " + path + ".2 " +
                    path + "; " + good),
              1)
        << file;
    EXPECT_EQ(shell("rm " + path + "; mv " + path + ".2 " + path + "; " + good), 0) << said();
  }
}

TEST_F(PolicyRun, EveryRecordOnceAndNoneAppendedDuringTheRun) {
  std::string line = command("a",
                             "append " + (top_ / "out").string() + " " + (top_ / "a.list").string() +
                                 " '" + record(5000, 9, "/late") + "'",
                             0, "-B 10 -m 3 -N all");
  std::ofstream(top_ / "a.list") << [] {
    std::string text;
    for (int i = 0; i < 500; i++) text += record(i / 7, 256 + i, "/p:!\n\\" + std::to_string(i));
    return text;
  }();
  ASSERT_EQ(shell(line), 0) << said();
  EXPECT_EQ(said().substr(0, 15), "500 records in ") << said();
  std::multiset<std::string> got;
  for (const auto &entry : fs::directory_iterator(top_ / "out")) {
    std::ifstream batch(entry.path());
    std::string text;
    while (std::getline(batch, text)) got.insert(text);
  }
  std::multiset<std::string> expected;
  for (int i = 0; i < 500; i++) {
    expected.insert(std::to_string(256 + i) + " 0 0  7,0,0,0,0 -- /p:!\\n\\\\" + std::to_string(i));
  }
  EXPECT_EQ(got, expected);
}

TEST_F(PolicyRun, LimitsOfWorkers) {
  std::string options = "busy " + (top_ / "count").string() + " 20";
  ASSERT_EQ(shell("KT_MAX_WORKERS=8 " + command("a", options, 30, "-B 1 -m 3")), 0) << said();
  EXPECT_EQ(number("count", 1), 3);
  EXPECT_EQ(number("count", 2), 30);
  fs::remove(top_ / "count");
  ASSERT_EQ(shell("KT_MAX_WORKERS=2 " + command("a", options, 30, "-B 1 -m 30")), 0) << said();
  EXPECT_EQ(number("count", 1), 2);
}

// Two levels of nesting, each asking for more workers than there are.
TEST_F(PolicyRun, NestedRunsShareOneBudget) {
  std::string leaf = command("leaf", "busy " + (top_ / "count").string() + " 5", 6, "-B 1 -m 32");
  std::string middle = command("middle", "shell '" + leaf + " > /dev/null'", 3, "-B 1 -m 32");
  std::string outer = command("outer", "shell '" + middle + " > /dev/null'", 4, "-B 1 -m 32");
  for (int budget : {1, 3}) {
    fs::remove(top_ / "count");
    ASSERT_EQ(shell("KT_MAX_WORKERS=" + std::to_string(budget) + " timeout 20 " + outer), 0) << said();
    EXPECT_EQ(number("count", 2), 4 * 3 * 6);
    EXPECT_EQ(number("count", 1), budget);
  }
}

TEST_F(PolicyRun, SlotsOfTheKilledComeBack) {
  std::string killed = command("killed", "shell 'kill -9 $PPID'", 1, "");
  std::string killed_engine = command("engine", "shell 'kill -9 $(ps -o ppid= -p $PPID)'", 1, "");
  std::string good = command("good", "keep " + (top_ / "out").string(), 2, "-B 1");
  std::ofstream(top_ / "script") << killed << "; test $? = 1 || exit 71\n"
                                 << killed_engine << "; test $? = 137 || exit 72\n"
                                 << "exec " << good << "\n";
  std::string outer = command("outer", "shell '. " + (top_ / "script").string() + "'", 1, "");
  EXPECT_EQ(shell("KT_MAX_WORKERS=1 timeout 20 " + outer), 0) << said();
  EXPECT_EQ(pidsIn(top_ / "out").size(), 2u);
  // The engine that was killed could not remove its batch file.
  for (const auto &entry : fs::directory_iterator(top_ / "g")) fs::remove(entry.path());
}

TEST_F(PolicyRun, LostWorkerFailsTheRunOnceItsProcessesHaveEnded) {
  EXPECT_EQ(shell(command("a", "leave " + (top_ / "left").string() + " 300", 40, "-B 1 -m 1")), 1);
  EXPECT_EQ(slurp(top_ / "left"), "done");
  EXPECT_NE(said().find("killed by signal 9"), std::string::npos) << said();
  // Nothing was started after the failure.
  EXPECT_NE(said().find("1 records in 1 batches, 1 failed"), std::string::npos) << said();
}

TEST_F(PolicyRun, FailingWorkerFailsTheRun) {
  EXPECT_EQ(shell(command("a", "shell 'exit 3'", 2, "-B 1 -m 1")), 1);
  EXPECT_NE(said().find("ended with status 3"), std::string::npos) << said();
}

TEST_F(PolicyRun, NoSpaceForBatchFiles) {
  std::string full = (top_ / "full").string();
  fs::create_directory(full);
  ASSERT_EQ(mount("none", full.c_str(), "tmpfs", 0, "size=4k,mode=755"), 0);
  std::string keep = command("a", "keep " + (top_ / "out").string(), 1000, "-g " + full + " -B 500");
  EXPECT_EQ(shell(keep), 28) << said();
  EXPECT_TRUE(fs::is_empty(full));
  EXPECT_EQ(umount(full.c_str()), 0);
}

TEST_F(PolicyRun, KilledEngineLeavesNoWorker) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::string held = (top_ / "out").string();
  std::string plain = command("plain", "hold " + held, 2, "-B 1 -m 2");
  std::string nested = command("nested", "hold " + held, 1, "");
  std::string outer = command("outer", "shell '" + nested + "'", 2, "-B 1 -m 2");
  for (const std::string &line : {plain, outer}) {
    pid_t engine = startEngine("env KT_MAX_WORKERS=2 " + line);
    ASSERT_TRUE(waitFor([&] { return pidsIn(held).size() == 2; }));
    kill(engine, SIGKILL);
    EXPECT_TRUE(waitFor([&] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
    for (pid_t pid : pidsIn(held)) {
      EXPECT_NE(kill(pid, 0), 0) << pid;
      fs::remove(held + "/" + std::to_string(pid));
    }
  }
  for (const auto &entry : fs::directory_iterator(top_ / "g")) fs::remove(entry.path());
}

TEST_F(PolicyRun, TerminatedEngineEndsItsWorkersAndFails) {
  std::string held = (top_ / "out").string();
  pid_t engine = startEngine(command("a", "hold " + held, 20, "-B 1 -m 2"));
  ASSERT_TRUE(waitFor([&] { return pidsIn(held).size() == 2; }));
  kill(engine, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(engine, &status, 0), engine);
  EXPECT_EQ(status, 1 << 8);
  EXPECT_EQ(pidsIn(held).size(), 2u);
  for (pid_t pid : pidsIn(held)) EXPECT_NE(kill(pid, 0), 0) << pid;
}

// A shell that becomes the engine may have children already; they are not the engine's to wait for.
TEST_F(PolicyRun, EarlierChildrenAreNotAwaited) {
  std::string good = command("good", "keep " + (top_ / "out").string(), 2, "");
  std::string sleeper = (top_ / "sleeper").string();
  EXPECT_EQ(shell("timeout 5 sh -c 'sleep 60 & echo $! > " + sleeper + "; exec " + good + "'"), 0)
      << said();
  kill(std::stoi(slurp(sleeper)), SIGTERM);
}

TEST_F(PolicyRun, RefusedBeforeAnythingStarts) {
  std::string keep = "keep " + (top_ / "out").string();
  struct {
    std::string line, says;
  } cases[] = {
      {command("probe", keep, 2, "", "/bin/false"), "TEST failed"},
      {command("exec", keep, 2, "", "/no/such/program"), "cannot start /no/such/program: No such file"},
      {command("a", keep, 2, "-m 0"), "-m needs"},
      {command("a", keep, 2, "-B 0"), "-B needs"},
      {command("a", keep, 2, "-N elsewhere"), "\"elsewhere\" is not this machine"},
      {command("a", keep, 2, "-Z"), "unknown option -Z"},
      {command("a", keep, 2, "other"), "exactly one device"},
      {command("a", keep, 2, "-r /no/list"), "/no/list: No such file"},
      {command("a", keep, 2, "-g /no/directory"), "/no/directory: No such file"},
      {command("a", keep, 2, "-P /no/policy"), "/no/policy: No such file"},
  };
  for (const auto &one : cases) {
    EXPECT_EQ(shell(one.line), 1) << one.line;
    EXPECT_NE(said().find(one.says), std::string::npos) << one.line << "\n" << said();
  }
  std::string line = command("cut", keep, 2, "");
  fs::resize_file(top_ / "cut.list", fs::file_size(top_ / "cut.list") - 1);
  EXPECT_EQ(shell(line), 1);
  EXPECT_NE(said().find("at byte " + std::to_string(fs::file_size(top_ / "cut.list"))),
            std::string::npos)
      << said();
  EXPECT_TRUE(fs::is_empty(top_ / "out"));
  EXPECT_EQ(shell(command("empty", keep, 0, "")), 0) << said();
}

}  // namespace
