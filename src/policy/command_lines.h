// Builds the command lines of the policy engine and, for its policy file, of the workers, and checks
// their length. No other module builds them. (The engine itself builds those for other nodes.)
#pragma once

#include <string>

#include "base/result.h"
#include "run/settings.h"

struct EngineRun {
  std::string command;    // the engine's command line with redirections; begins with the program
  std::string options;    // options of the workers, for the policy file
  std::string list;       // path of the list
  std::string policy;     // path of the policy file
  std::string directory;  // path of the directory for policy and batch files
};

// Returns the command that starts the engine of the run. With exec the engine takes the place of the
// shell, and is then killed if this process dies.
std::string engineCommand(const EngineRun &run);

// Returns the options of the workers with those that name this process as their caller. E2BIG if they
// are too long. Master and workers.
Result callerOptions(const EngineRun &run, std::string *options);

// Builds the command in which the engine asks every node whether it can take part: a node that sees the
// work directory with this token must answer `answer`. E2BIG after a message. Master only.
Result nodeQuestion(const std::string &token, const std::string &answer, std::string *command);

// Checks before the first list is written that the command lines of all phases will fit, and traces
// their common parts. E2BIG after a message. Master only.
Result checkCommandLines();

// Builds the run of one phase over the list `list_name` of the work directory. E2BIG after a message.
// Master only.
Result phaseRun(Phase phase, const std::string &list_name, EngineRun *run);

// Builds the run of the scan over scan.list, in which each worker gets one record. E2BIG after a
// message. Master only.
Result scanRun(EngineRun *run);

// Builds the run of one list in the set of a top directory, whose path is `set`: phase 3 without
// further nested runs. E2BIG after a message. Workers.
Result nestedRun(const std::string &set, const std::string &list, EngineRun *run);
