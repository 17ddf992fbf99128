// restore_run.h: starts the restore command (or another program) in a session of its own, captures what
// it prints, and makes sure that none of its processes outlives it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/descriptor.h"

namespace testsupport {

inline constexpr const char *kRestoreProgram = "/usr/qtx/kest/bin/fsetrestore";

struct RunOptions {
  std::string program = kRestoreProgram;
  std::vector<std::pair<std::string, std::string>> environment = {};  // added to ours
  std::string workingDirectory = "/";
  double timeoutSeconds = 60;
  // Kill the whole session (SIGKILL) after this time, as a crash would; below 0: never.
  double killAfterSeconds = -1;
};

struct Process {
  pid_t pid, parent;
  std::string name;
};

// A run that goes on while the test looks at it.
class Running {
 public:
  // Throws std::system_error where the program cannot be started.
  explicit Running(const std::vector<std::string> &arguments, const RunOptions &options = {});
  ~Running() { endAll(); }

  pid_t pid() const { return pid_; }
  bool ended();
  int exitStatus() const;    // -1 where a signal ended it
  int signalNumber() const;  // 0 where it ended by itself
  std::string out() const, err() const;
  std::string said() const { return err() + out(); }

  // Its processes that have not begun to end.
  std::vector<Process> living() const;
  // The master, its engine, or a worker of it that is at work; 0: there is none.
  pid_t find(const std::string &role) const;
  // Kills what is left of it. False when something is left even then.
  bool endAll();

 private:
  Descriptor out_, err_;
  pid_t pid_ = 0;
  int status_ = 0;
  bool reaped_ = false;
};

// False when the condition has not come true within the time.
bool waitUntil(const std::function<bool()> &condition, double seconds);

struct RunResult {
  int exitStatus = -1;  // -1 where a signal ended it
  int signal = 0;
  bool timedOut = false;
  int processesLeft = 0;  // of its session, still alive when it ended by itself
  double seconds = 0;
  std::string out;
  std::string err;

  // "exit 1, 0.24 s" and the last lines of both outputs, for a test's message.
  std::string describe(size_t tailBytes = 3000) const;
};

// A run that times out is killed with its whole session and reported.
RunResult runProgram(const std::vector<std::string> &arguments, const RunOptions &options = {});

// The usual command line: DEVICE -j FILESET -o SNAPSHOT and further arguments.
RunResult runRestore(const std::string &device, const std::string &fileset, const std::string &snapshot,
                     const std::vector<std::string> &further = {}, const RunOptions &options = {});

std::string readAll(const std::string &path);  // empty where it cannot be read

}  // namespace testsupport
