#include "restore/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "restore/memory_budget.h"
#include "run/settings.h"

namespace {

// Parses the words of `line`.
RunMode read(const std::string &line) {
  std::vector<std::string> words = {"/some/where/prog"};
  std::istringstream in(line);
  for (std::string word; in >> word;) words.push_back(word);
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  settings = {};
  testing::internal::CaptureStderr();
  const RunMode mode = readCommandLine(static_cast<int>(words.size()), argv.data());
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_EQ(text.find("Usage prog\n") != std::string::npos, mode == RunMode::kUsage) << line;
  return mode;
}

const std::string kMaster = "/dev -j f -o s ";

TEST(CommandLine, Modes) {
  EXPECT_EQ(read("TEST x -Z"), RunMode::kProbe);
  for (const std::string &line :
       {std::string("LIST batch -p 4 -d dev -t /w"), std::string("list -j f -o s"), kMaster + "-Z",
        kMaster + "-m", kMaster + "-N " + std::string(1023, 'n')})
    EXPECT_EQ(read(line), RunMode::kRun) << line;
  for (const std::string &line :
       {std::string(), std::string("/dev -j f"), std::string("/dev -o s"),
        // A worker needs fileset and snapshot (except in phase 4), a phase, a work directory and a
        // batch.
        std::string("LIST batch -p 3 -d dev -t /w"), std::string("LIST batch -d dev -j f -o s"),
        std::string("LIST b -p 3 -d dev -j f -o s"), kMaster + "-t /w -p 4", kMaster + "-p 1",
        kMaster + "-p 2", kMaster + "-p -3",
        std::string("/dev -Z -j f -o s"),  // parsing ends at the unknown letter
        kMaster + "-N " + std::string(1024, 'n'), kMaster + "-t " + std::string(1024, 'n')})
    EXPECT_EQ(read(line), RunMode::kUsage) << line;
}

TEST(CommandLine, WorkersOptionsMeanNothingToTheMaster) {
  ASSERT_EQ(read(kMaster + "-s 5 -t /w"), RunMode::kRun);
  EXPECT_EQ(settings.pass, 0);
  EXPECT_EQ(settings.shareDir, "");
}

TEST(CommandLine, OptionsApplyInOrder) {
  ASSERT_EQ(read(kMaster + "-b 5 -B 7 -m x -q -v -xE"), RunMode::kRun);
  EXPECT_EQ(settings.unitSize, 5);
  EXPECT_EQ(settings.maxFiles, 7);
  EXPECT_EQ(settings.threads, 0);
  EXPECT_TRUE(settings.Debug && settings.Verb && settings.keepWorkDir && settings.noXAttr &&
              settings.encryptEA);
  ASSERT_EQ(read(kMaster + "-B 7 -b 5 -v -q"), RunMode::kRun);
  EXPECT_EQ(settings.maxFiles, 5);
  EXPECT_TRUE(!settings.Debug && settings.Verb && settings.keepWorkDir);
}

TEST(CommandLine, PathsBecomeAbsolute) {
  ASSERT_EQ(chdir("/usr"), 0);
  for (const auto &[given, kept] : std::map<std::string, std::string>{
           {"bin/..", "/usr"}, {"no-such-device", "no-such-device"}, {"/usr/../usr", "/usr/../usr"}}) {
    ASSERT_EQ(read(given + " -j f -o s"), RunMode::kRun);
    EXPECT_EQ(settings.deviceP, kept);
  }
  EXPECT_EQ(settings.exe.front(), '/');
  EXPECT_NE(settings.exe, "/some/where/prog");
}

TEST(CommandLine, Memory) {
  for (const auto &[text, kib] :
       std::map<std::string, uint64_t>{{"512m", 524288},
                                       {"2G", 2097152},
                                       {"xM", 0},
                                       {"-5m", 0},
                                       {std::string(20, '9') + "g", UINT64_MAX}}) {
    EXPECT_EQ(read(kMaster + "-M " + text), RunMode::kRun) << text;
    EXPECT_EQ(settings.mem, kib) << text;
  }
  for (const char *bad : {"2k", "20"}) EXPECT_EQ(read(kMaster + "-M " + bad), RunMode::kUsage) << bad;
}

TEST(MemoryBudget, ThirtyPercentAtMostFourGiB) {
  struct {
    const char *text;
    int rc;
    uint64_t mem;
  } cases[] = {{"MemTotal:       10000000 kB\nMemFree: 1 kB\n", 0, 3000000},
               {"MemTotal:18446744073709551615 kB\n", 0, 4194304},
               {"MemTotal: kB\n", -1, 0}};
  const std::string file = "/tmp/unit-meminfo-" + std::to_string(getpid());
  for (const auto &test : cases) {
    std::ofstream(file, std::ios::trunc) << test.text;
    uint64_t mem = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(setMaxMemUsage(&mem, file).rc, test.rc) << test.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), test.rc == 0);
    EXPECT_EQ(mem, test.mem);
  }
  unlink(file.c_str());
  uint64_t mem = 0;
  EXPECT_EQ(setMaxMemUsage(&mem, file).rc, ENOENT);
  EXPECT_EQ(diffItemLimit(4194304), 178956970u);
  EXPECT_GT(diffItemLimit(UINT64_MAX), 0u);
}

}  // namespace
