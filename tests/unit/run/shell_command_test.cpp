#include "run/shell_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <map>

namespace {

TEST(ShellWord, NeitherRunsNorSplits) {
  EXPECT_EQ(shellWord("/mnt/fs-1/RestoreTemp47"), "/mnt/fs-1/RestoreTemp47");
  EXPECT_EQ(shellWord("node1,node2"), "node1,node2");
  for (const std::string word : {"a b", "$(touch /tmp/x)", "it's", "'", "", "a;b", "~root", "*",
                                 "new\nline", "a\\b", "`x`", "\"", "#c", "\xc3\xa4"}) {
    std::string output;
    int status = -1;
    ASSERT_TRUE(runCommandOutput("printf %s " + shellWord(word), &output, &status));
    EXPECT_EQ(status, 0) << word;
    EXPECT_EQ(output, word);
  }
}

TEST(RunCommand, ReportsHowTheShellEnded) {
  for (const auto &[command, expected] :
       std::map<std::string, int>{{"exit 7", 7}, {"kill -9 $$", 128 + 9}, {"/no/x 2>&-", 127}}) {
    int status = -1;
    ASSERT_TRUE(runCommand(command, &status)) << command;
    EXPECT_EQ(status, expected) << command;
  }
}

TEST(RunCommand, WhatAKilledShellLeavesIsAwaited) {
  int status = -1, ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  inheritInCommands(ends[1]);
  const std::string to = std::to_string(ends[1]);
  ASSERT_TRUE(runCommand("sh -c 'sleep 0.2; echo done >&" + to + "' & kill -9 $$", &status));
  inheritInCommands(-1);
  EXPECT_EQ(status, 128 + 9);
  char text[8] = "";
  EXPECT_EQ(read(ends[0], text, sizeof text), 5) << "the orphan is still at work";
  ASSERT_TRUE(runCommand("echo >&" + to + " 2>&-", &status));
  EXPECT_NE(status, 0) << "inherited without being asked for";
  close(ends[0]);
  close(ends[1]);
}

TEST(RunCommand, OutputIsReadWholeAndSignalsAreUnblocked) {
  std::string output;
  int status = -1;
  ASSERT_TRUE(runCommandOutput("head -c 300000 /dev/zero; exit 3", &output, &status, 1000));
  EXPECT_EQ(status, 3);
  EXPECT_EQ(output.size(), 1000u);
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  ASSERT_TRUE(runCommandOutput("grep SigBlk /proc/self/status", &output, &status));
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(output, "SigBlk:\t0000000000000000\n");
}

}  // namespace
