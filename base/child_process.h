// Starts programs. No other code forks.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include "base/result.h"

struct ProcessStart {
  char *const *arguments;      // ends with a null pointer
  char *const *environment;    // ends with a null pointer
  const char *path = nullptr;  // path of the program; null: arguments[0]
  // Descriptors that become 0, 1 and 2 in the program; -1 keeps the caller's.
  int standard_input = -1;
  int standard_output = -1;
  int standard_error = -1;
  int inherited = -1;  // a close-on-exec descriptor that the program inherits nevertheless; -1: none
  const sigset_t *mask = nullptr;  // the program's signal mask; null: block nothing
  bool own_group = false;          // makes the program the leader of a new process group
  // Resets SIGINT, SIGTERM and SIGHUP to their default action if this process catches them. Ignored
  // signals stay ignored.
  bool default_signals = false;
};

// Starts the program, which is killed when this process dies. `pid` receives the child; the caller
// waits for it. rc of a failure is the errno, also if the program could not be executed; there is no
// child then. Uses vfork, because fork would copy the page tables of all memory of this process.
Result startProcess(const ProcessStart &start, pid_t *pid);
