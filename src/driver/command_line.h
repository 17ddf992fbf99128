// The command line of both run modes.
#pragma once

enum class RunMode {
  kProbe,  // "TEST": ends at once with 0
  kUsage,  // the usage message was printed, the run ends with 1
  kRun,    // settings are filled; settings.phase tells master (0) from worker
};

// Reads the arguments into `settings`, printing messages about them. Paths of this program and of the
// device become absolute.
RunMode readCommandLine(int argc, char **argv);

// Last path component of argv[0], as the usage message names the program.
const char *programName(const char *argv0);
