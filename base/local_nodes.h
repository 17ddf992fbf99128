// Node lists. The file system is local, so all work is done on this machine.
#pragma once

#include <string>

// Returns true if every node of the comma-separated list is this machine: "all", "localhost" or its
// host name, with or without the domain. Otherwise sets *foreign to the first other node.
bool nodesAreLocal(const std::string &nodes, std::string *foreign);
