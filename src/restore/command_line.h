// Parses the command line of both run modes.
#pragma once

enum class RunMode {
  kProbe,      // "TEST": end at once with 0
  kNodeProbe,  // "TEST" with the trees and work directory of another node's run: see node_check.h
  kUsage,      // the usage message was printed: end with 1
  kRun,        // settings are filled, among them the role
};

// Parses the arguments into `settings` and prints messages about errors. Makes the paths of this
// program and of the device absolute.
RunMode readCommandLine(int argc, char **argv);
