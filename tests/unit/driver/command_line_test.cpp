#include "driver/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "driver/memory_budget.h"
#include "run/settings.h"

namespace {

constexpr char kUsageStart[] = "Usage prog\n    Device { -j FileSet -o SnapShot} \n";

RunMode read(std::vector<std::string> arguments, std::string *printed = nullptr) {
  arguments.insert(arguments.begin(), "/some/where/prog");
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  settings = {};
  testing::internal::CaptureStderr();
  const RunMode mode = readCommandLine(static_cast<int>(arguments.size()), argv.data());
  const std::string text = testing::internal::GetCapturedStderr();
  if (printed) *printed = text;
  return mode;
}

TEST(CommandLine, Modes) {
  std::string text;
  EXPECT_EQ(read({}, &text), RunMode::kUsage);
  EXPECT_EQ(text.find(std::string("Too few arguments specified.\n") + kUsageStart), 0u);
  EXPECT_EQ(read({"TEST", "x", "-Z"}, &text), RunMode::kProbe);
  EXPECT_EQ(text, "");
  struct {
    std::vector<std::string> arguments;
    RunMode mode;
  } cases[] = {
      {{"/dev", "-j", "f", "-o", "s"}, RunMode::kRun},
      {{"/dev", "-j", "f"}, RunMode::kUsage},
      {{"/dev", "-o", "s"}, RunMode::kUsage},
      {{"LIST", "batch", "-p", "4", "-d", "dev", "-t", "/w"}, RunMode::kRun},
      {{"LIST", "batch", "-p", "3", "-d", "dev", "-t", "/w"}, RunMode::kUsage},
      {{"LIST", "batch", "-d", "dev", "-j", "f", "-o", "s"}, RunMode::kUsage},  // a worker has a phase
      {{"LIST", "b", "-p", "3", "-d", "dev", "-j", "f", "-o", "s"},
       RunMode::kUsage},                                // nor a work directory
      {{"list", "-j", "f", "-o", "s"}, RunMode::kRun},  // a device of that name
      {{"/dev", "-j", "f", "-o", "s", "-p", "1"}, RunMode::kUsage},
      {{"/dev", "-j", "f", "-o", "s", "-p", "2"}, RunMode::kUsage},
      {{"/dev", "-j", "f", "-o", "s", "-p", "-3"}, RunMode::kUsage},
      {{"/dev", "-j", "f", "-o", "s", "-t", "/w", "-p", "4"}, RunMode::kUsage},  // no batch
      {{"/dev", "-Z", "-j", "f", "-o", "s"}, RunMode::kUsage},  // reading ends at the unknown letter
      {{"/dev", "-j", "f", "-o", "s", "-Z"}, RunMode::kRun},
      {{"/dev", "-j", "f", "-o", "s", "-m"}, RunMode::kRun},
      {{"/dev", "-j", "f", "-o", "s", "-N", std::string(1023, 'n')}, RunMode::kRun},
      {{"/dev", "-j", "f", "-o", "s", "-N", std::string(1024, 'n')}, RunMode::kUsage},
      {{"/dev", "-j", "f", "-o", "s", "-t", std::string(1024, 'n')}, RunMode::kUsage},
  };
  for (const auto &test : cases)
    EXPECT_EQ(read(test.arguments), test.mode) << testing::PrintToString(test.arguments);
}

TEST(CommandLine, WorkersOptionsMeanNothingToTheMaster) {
  ASSERT_EQ(read({"/dev", "-j", "f", "-o", "s", "-s", "5", "-t", "/w"}), RunMode::kRun);
  EXPECT_EQ(settings.pass, 0);
  EXPECT_EQ(settings.shareDir, "");
}

TEST(CommandLine, OptionsApplyInOrder) {
  ASSERT_EQ(read({"/dev", "-b", "5", "-j", "f", "-B", "7", "-o", "s", "-m", "x", "-q", "-v", "-xE"}),
            RunMode::kRun);
  EXPECT_EQ(settings.deviceP, "/dev");
  EXPECT_EQ(settings.unitSize, 5);
  EXPECT_EQ(settings.maxFiles, 7);
  EXPECT_EQ(settings.threads, 0);
  EXPECT_TRUE(settings.Debug && settings.Verb && settings.keepWorkDir && settings.noXAttr &&
              settings.encryptEA);
  ASSERT_EQ(read({"/dev", "-B", "7", "-b", "5", "-j", "f", "-o", "s", "-v", "-q"}), RunMode::kRun);
  EXPECT_EQ(settings.maxFiles, 5);
  EXPECT_TRUE(!settings.Debug && settings.Verb && settings.keepWorkDir);
  EXPECT_EQ(settings.threads, 36);
  ASSERT_EQ(read({"LIST", "/b/1", "-d", "/dev", "-j", "f",  "-o", "s",  "-t", "/w",
                  "-B",   "3",    "",   "-p",   "51", "-s", "2",  "-D", "-c", "4711"}),
            RunMode::kRun);
  EXPECT_EQ(settings.listFile, "/b/1");
  EXPECT_EQ(settings.shareDir, "/w");
  EXPECT_EQ(settings.phase, 51);
  EXPECT_EQ(settings.pass, 2);
  EXPECT_EQ(settings.callerPid, 4711);
  EXPECT_FALSE(settings.topDir);
}

TEST(CommandLine, PathsBecomeAbsolute) {
  ASSERT_EQ(chdir("/usr"), 0);
  ASSERT_EQ(read({"bin/..", "-j", "f", "-o", "s"}), RunMode::kRun);
  EXPECT_EQ(settings.deviceP, "/usr");
  ASSERT_EQ(read({"no-such-device", "-j", "f", "-o", "s"}), RunMode::kRun);
  EXPECT_EQ(settings.deviceP, "no-such-device");
  ASSERT_EQ(read({"/usr/../usr", "-j", "f", "-o", "s"}), RunMode::kRun);
  EXPECT_EQ(settings.deviceP, "/usr/../usr");
  EXPECT_EQ(settings.exe.front(), '/');
  EXPECT_NE(settings.exe, "/some/where/prog");
}

TEST(CommandLine, Memory) {
  struct {
    const char *text;
    bool accepted;
    uint64_t kib;
  } cases[] = {
      {"512m", true, 524288},
      {"2G", true, 2097152},
      {"1M", true, 1024},
      {"3g", true, 3145728},
      {"m", true, 0},
      {"xM", true, 0},
      {"-5m", true, 0},
      {"2k", false, 0},
      {"20", false, 0},
      {"", false, 0},
      {"99999999999999999999g", true, std::numeric_limits<uint64_t>::max()},
  };
  for (const auto &test : cases) {
    EXPECT_EQ(read({"/dev", "-j", "f", "-o", "s", "-M", test.text}),
              test.accepted ? RunMode::kRun : RunMode::kUsage)
        << test.text;
    if (test.accepted) {
      EXPECT_EQ(settings.mem, test.kib) << test.text;
    }
  }
}

TEST(MemoryBudget, ThirtyPercentAtMostFourGiB) {
  struct {
    const char *text;
    int rc;
    uint64_t mem;
  } cases[] = {
      {"MemTotal:       10000000 kB\nMemFree: 1 kB\n", 0, 3000000},
      {"MemTotal: 20000000 kB\n", 0, 4194304},
      {"MemTotal:18446744073709551615 kB\n", 0, 4194304},
      {"MemTotal: kB\n", -1, 0},
      {"no number", -1, 0},
  };
  const std::string file = "/tmp/unit-meminfo-" + std::to_string(getpid());
  for (const auto &test : cases) {
    std::ofstream(file, std::ios::trunc) << test.text;
    uint64_t mem = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(setMaxMemUsage(&mem, file), test.rc) << test.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              test.rc ? "Failed to get total memory in system.\n" : "");
    EXPECT_EQ(mem, test.mem);
  }
  std::ofstream(file, std::ios::trunc).close();
  uint64_t mem = 0;
  EXPECT_NE(setMaxMemUsage(&mem, file), 0);
  unlink(file.c_str());
  EXPECT_EQ(setMaxMemUsage(&mem, file), ENOENT);
  EXPECT_EQ(setMaxMemUsage(&mem), 0);
  EXPECT_GT(mem, 0u);
  EXPECT_EQ(diffItemLimit(4194304), 178956970u);
  EXPECT_GT(diffItemLimit(std::numeric_limits<uint64_t>::max()), 0u);
}

}  // namespace
