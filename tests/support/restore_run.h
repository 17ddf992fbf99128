// restore_run.h: starts the restore command (or another program) in a session of its own, captures what
// it prints, and makes sure that none of its processes outlives the call.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

inline constexpr const char *kRestoreProgram = "/usr/qtx/kest/bin/fsetrestore";

struct RunOptions {
  std::string program = kRestoreProgram;
  std::vector<std::pair<std::string, std::string>> environment;  // added to ours
  std::string workingDirectory = "/";
  double timeoutSeconds = 60;
  // Kill the whole session (SIGKILL) after this time, as a crash would; below 0: never.
  double killAfterSeconds = -1;
};

struct RunResult {
  int exitStatus = -1;  // -1 where a signal ended it
  int signal = 0;
  bool timedOut = false;
  bool killed = false;    // by killAfterSeconds
  int processesLeft = 0;  // of its session, still alive when it ended by itself
  double seconds = 0;
  std::string out;
  std::string err;

  // "exit 1, 0.24 s" and the last lines of both outputs, for a test's message.
  std::string describe(size_t tailBytes = 3000) const;
};

// Throws std::system_error where the program cannot be started. A run that times out is killed with its
// whole session and reported.
RunResult runProgram(const std::vector<std::string> &arguments, const RunOptions &options = {});

// The usual command line: DEVICE -j FILESET -o SNAPSHOT and further arguments.
RunResult runRestore(const std::string &device, const std::string &fileset, const std::string &snapshot,
                     const std::vector<std::string> &further = {}, const RunOptions &options = {});

}  // namespace testsupport
