// The command line of both run modes.
#pragma once

enum class RunMode {
  kProbe,  // "TEST": ends at once with 0
  kUsage,  // the usage message was printed, the run ends with 1
  kRun,    // settings are filled; settings.role tells master from worker
};

// Reads the arguments into `settings`, printing messages about them. Paths of this program and of the
// device become absolute.
RunMode readCommandLine(int argc, char **argv);
