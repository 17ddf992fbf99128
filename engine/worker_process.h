// Worker processes: how they start, and the signals of this process that are for them.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

// Signals that end a run: those of SIGTERM, SIGINT and SIGHUP that were not ignored at the start.
// Blocked together with SIGCHLD from construction on; the mask before that is the workers'. One per
// process.
class RunSignals {
 public:
  RunSignals();
  int fd() const { return fd_.get(); }
  const sigset_t &workerMask() const { return before_; }

 private:
  sigset_t before_;
  UniqueFd fd_;
};

// Starts workers on this machine, each in a process group of its own, with /dev/null as standard input.
class WorkerStarter {
 public:
  explicit WorkerStarter(const sigset_t &mask) : mask_(mask) {}

  // Starts the program argv[0] in this process's environment, where KT_WORKER_SLOT is `slot`, and
  // returns at once. The worker is killed when this process dies. rc of a failure is the errno; there
  // is no child then.
  Result start(std::vector<std::string> argv, const std::string &slot, pid_t *child);

 private:
  sigset_t mask_;
  UniqueFd input_;
};

// Direct children of this process, adopted ones included.
std::vector<pid_t> childProcesses();
