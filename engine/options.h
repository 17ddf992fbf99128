// The command line of the engine.
#pragma once

#include <cstddef>
#include <string>

struct Options {
  std::string device;
  std::string policy;     // -P
  std::string directory;  // -g
  std::string list;       // -r
  std::string nodes = "all";
  size_t max_workers = 24;   // -m
  size_t batch_size = 1000;  // -B
  bool help = false;
  bool version = false;
};

extern const char *const kEngineUsage;

// Returns false if an option is wrong or missing; *problem explains it.
bool parseOptions(int argc, char **argv, Options *options, std::string *problem);
