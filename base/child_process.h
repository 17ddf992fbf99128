// Starting programs: the only code that forks.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include "base/result.h"

struct ProcessStart {
  char *const *arguments;      // ends with a null pointer
  char *const *environment;    // ends with a null pointer
  const char *path = nullptr;  // of the program; null: arguments[0]
  // Descriptors that take these places in the program; -1: the caller's stay.
  int standard_input = -1;
  int standard_output = -1;
  int standard_error = -1;
  int inherited = -1;  // a close-on-exec descriptor that the program is to have all the same; -1: none
  const sigset_t *mask = nullptr;  // the program's signal mask; null: nothing blocked
  bool own_group = false;          // makes the program the leader of a process group of its own
  // Gives SIGINT, SIGTERM and SIGHUP their default effect where this process catches them. Ignored
  // signals stay ignored.
  bool default_signals = false;
};

// Starts the program; it is killed when this process dies. `pid` receives the child, which the caller
// awaits. rc of a failure is the errno, also where the program itself could not be executed; there is
// no child then. It uses vfork: a copy of this process would have to copy the page tables of all its
// memory.
Result startProcess(const ProcessStart &start, pid_t *pid);
