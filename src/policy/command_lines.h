// The command lines of the policy engine and, through its policy file, of the workers: the only place
// that builds them, with the bounds that they must keep.
#pragma once

#include <string>

#include "base/result.h"
#include "run/settings.h"

struct EngineRun {
  std::string command;    // of the engine: one program with its arguments and redirections
  std::string options;    // of its workers, for the policy file
  std::string list;       // path of the list
  std::string policy;     // path of the policy file
  std::string directory;  // path of the directory of policy and batch files
};

// Checks, before anything is listed, that the command lines of every phase will fit, and traces their
// common parts. E2BIG after a message. Master only.
Result checkCommandLines();

// One phase over the list `list_name` of the work directory. E2BIG after a message. Master only.
Result phaseRun(Phase phase, const std::string &list_name, EngineRun *run);

// One list of a per-directory set, whose path `set` is: phase 3 without nested runs. E2BIG after a
// message. Workers.
Result nestedRun(const std::string &set, const std::string &list, EngineRun *run);
