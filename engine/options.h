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
  std::string part;          // --part: this run is a part of one of several nodes; see PartOrder
  std::string ask;           // --ask: a command to run on every other node
  std::string answer;        // --answer: what it must print
  bool help = false;
  bool version = false;
};

extern const char *const kEngineUsage;

// Returns false if an option is wrong or missing; *problem explains it.
bool parseOptions(int argc, char **argv, Options *options, std::string *problem);
