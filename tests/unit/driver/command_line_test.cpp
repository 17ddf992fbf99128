#include "driver/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "driver/memory_budget.h"
#include "run/settings.h"

namespace {

using Words = std::vector<std::string>;

RunMode read(Words arguments) {
  arguments.insert(arguments.begin(), "/some/where/prog");
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  settings = {};
  testing::internal::CaptureStderr();
  const RunMode mode = readCommandLine(static_cast<int>(arguments.size()), argv.data());
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_EQ(text.find("Usage prog\n") != std::string::npos, mode == RunMode::kUsage) << text;
  return mode;
}

// A complete command line of a master, with these in addition.
RunMode readMaster(const Words &options) {
  Words words = {"/dev", "-j", "f", "-o", "s"};
  words.insert(words.end(), options.begin(), options.end());
  return read(words);
}

TEST(CommandLine, Modes) {
  const Words runs[] = {
      {"LIST", "batch", "-p", "4", "-d", "dev", "-t", "/w"},
      {"list", "-j", "f", "-o", "s"},  // a device of that name
      {"/dev", "-j", "f", "-o", "s", "-Z"},
      {"/dev", "-j", "f", "-o", "s", "-m"},
      {"/dev", "-j", "f", "-o", "s", "-N", std::string(1023, 'n')},
  };
  const Words usages[] = {
      {},
      {"/dev", "-j", "f"},
      {"/dev", "-o", "s"},
      {"LIST", "batch", "-p", "3", "-d", "dev", "-t", "/w"},            // a worker needs both
      {"LIST", "batch", "-d", "dev", "-j", "f", "-o", "s"},             // a phase
      {"LIST", "batch", "-p", "3", "-d", "dev", "-j", "f", "-o", "s"},  // a work directory
      {"/dev", "-j", "f", "-o", "s", "-t", "/w", "-p", "4"},            // and a batch
      {"/dev", "-j", "f", "-o", "s", "-p", "1"},
      {"/dev", "-j", "f", "-o", "s", "-p", "2"},
      {"/dev", "-j", "f", "-o", "s", "-p", "-3"},
      {"/dev", "-Z", "-j", "f", "-o", "s"},  // reading ends at the unknown letter
      {"/dev", "-j", "f", "-o", "s", "-N", std::string(1024, 'n')},
      {"/dev", "-j", "f", "-o", "s", "-t", std::string(1024, 'n')},
  };
  EXPECT_EQ(read({"TEST", "x", "-Z"}), RunMode::kProbe);
  for (const Words &words : runs)
    EXPECT_EQ(read(words), RunMode::kRun) << testing::PrintToString(words);
  for (const Words &words : usages)
    EXPECT_EQ(read(words), RunMode::kUsage) << testing::PrintToString(words);
}

TEST(CommandLine, WorkersOptionsMeanNothingToTheMaster) {
  ASSERT_EQ(readMaster({"-s", "5", "-t", "/w"}), RunMode::kRun);
  EXPECT_EQ(settings.pass, 0);
  EXPECT_EQ(settings.shareDir, "");
}

TEST(CommandLine, OptionsApplyInOrder) {
  ASSERT_EQ(readMaster({"-b", "5", "-B", "7", "-m", "x", "-q", "-v", "-xE"}), RunMode::kRun);
  EXPECT_EQ(settings.unitSize, 5);
  EXPECT_EQ(settings.maxFiles, 7);
  EXPECT_EQ(settings.threads, 0);
  EXPECT_TRUE(settings.Debug && settings.Verb && settings.keepWorkDir && settings.noXAttr &&
              settings.encryptEA);
  ASSERT_EQ(readMaster({"-B", "7", "-b", "5", "-v", "-q"}), RunMode::kRun);
  EXPECT_EQ(settings.maxFiles, 5);
  EXPECT_TRUE(!settings.Debug && settings.Verb && settings.keepWorkDir);
  EXPECT_EQ(settings.threads, 36);
}

TEST(CommandLine, PathsBecomeAbsolute) {
  ASSERT_EQ(chdir("/usr"), 0);
  const char *const devices[][2] = {
      {"bin/..", "/usr"}, {"no-such-device", "no-such-device"}, {"/usr/../usr", "/usr/../usr"}};
  for (const auto &[given, kept] : devices) {
    ASSERT_EQ(read({given, "-j", "f", "-o", "s"}), RunMode::kRun);
    EXPECT_EQ(settings.deviceP, kept);
  }
  EXPECT_EQ(settings.exe.front(), '/');
  EXPECT_NE(settings.exe, "/some/where/prog");
}

TEST(CommandLine, Memory) {
  struct {
    const char *text;
    uint64_t kib;
  } cases[] = {{"512m", 524288},
               {"2G", 2097152},
               {"xM", 0},
               {"-5m", 0},
               {"99999999999999999999g", std::numeric_limits<uint64_t>::max()}};
  for (const auto &test : cases) {
    EXPECT_EQ(readMaster({"-M", test.text}), RunMode::kRun) << test.text;
    EXPECT_EQ(settings.mem, test.kib) << test.text;
  }
  for (const char *bad : {"2k", "20", ""}) EXPECT_EQ(readMaster({"-M", bad}), RunMode::kUsage);
}

TEST(MemoryBudget, ThirtyPercentAtMostFourGiB) {
  struct {
    const char *text;
    int rc;
    uint64_t mem;
  } cases[] = {
      {"MemTotal:       10000000 kB\nMemFree: 1 kB\n", 0, 3000000},
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
  unlink(file.c_str());
  uint64_t mem = 0;
  EXPECT_EQ(setMaxMemUsage(&mem, file), ENOENT);
  EXPECT_EQ(diffItemLimit(4194304), 178956970u);
  EXPECT_GT(diffItemLimit(std::numeric_limits<uint64_t>::max()), 0u);
}

}  // namespace
