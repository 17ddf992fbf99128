// restore_run.h: starts the restore command (or another program) in its own session, captures its
// output, and makes sure that none of its processes outlives it.
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
  // Kills the whole session (SIGKILL) after this time, like a crash; negative: never.
  double killAfterSeconds = -1;
};

struct Process {
  pid_t pid, parent;
  std::string name;
};

// A run that continues while the test watches it.
class Running {
 public:
  // Throws std::system_error if the program cannot be started.
  explicit Running(const std::vector<std::string> &arguments, const RunOptions &options = {});
  ~Running() { endAll(); }

  pid_t pid() const { return pid_; }
  bool ended();
  int exitStatus() const;    // -1 if a signal ended it
  int signalNumber() const;  // 0 if it ended by itself
  std::string out() const, err() const;
  std::string said() const { return err() + out(); }

  // Returns its processes that have not begun to end.
  std::vector<Process> living() const;
  // Returns the master, its engine, or one of its working workers; 0 if there is none.
  pid_t find(const std::string &role) const;
  // Kills the remaining processes. Returns false if some survive that.
  bool endAll();

 private:
  Descriptor out_, err_;
  pid_t pid_ = 0;
  int status_ = 0;
  bool reaped_ = false;
};

// Returns false if the condition has not become true in time.
bool waitUntil(const std::function<bool()> &condition, double seconds);

struct RunResult {
  int exitStatus = -1;  // -1 if a signal ended it
  int signal = 0;
  bool timedOut = false;
  int processesLeft = 0;  // processes of its session that were alive when it ended by itself
  double seconds = 0;
  std::string out;
  std::string err;

  // Returns "exit 1, 0.24 s" and the last lines of both outputs, for a test's message.
  std::string describe(size_t tailBytes = 3000) const;
};

// Kills the whole session of a run that times out, and reports that.
RunResult runProgram(const std::vector<std::string> &arguments, const RunOptions &options = {});

// Uses the usual command line: DEVICE -j FILESET -o SNAPSHOT and further arguments.
RunResult runRestore(const std::string &device, const std::string &fileset, const std::string &snapshot,
                     const std::vector<std::string> &further = {}, const RunOptions &options = {});

std::string readAll(const std::string &path);  // "" if it cannot be read

}  // namespace testsupport
