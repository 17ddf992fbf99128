// Starts worker processes and receives the signals of the engine.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

// Receives the signals that end a run: SIGTERM, SIGINT and SIGHUP, except those that were ignored at
// the start. They and SIGCHLD are blocked from the construction on; workers get the mask from before.
// One object per process.
class RunSignals {
 public:
  RunSignals();
  int fd() const { return fd_.get(); }
  const sigset_t &workerMask() const { return before_; }

 private:
  sigset_t before_;
  UniqueFd fd_;
};

// Starts workers, each in its own process group and with /dev/null as standard input.
class WorkerStarter {
 public:
  explicit WorkerStarter(const sigset_t &mask) : mask_(mask) {}

  // Starts the program argv[0] with the environment of this process, in which KT_WORKER_SLOT is `slot`,
  // and returns at once. The worker is killed when this process dies. rc of a failure is the errno;
  // there is no child then.
  Result start(std::vector<std::string> argv, const std::string &slot, pid_t *child);

 private:
  sigset_t mask_;
  UniqueFd input_;
};

// Returns the direct children of this process, including adopted ones.
std::vector<pid_t> childProcesses();
