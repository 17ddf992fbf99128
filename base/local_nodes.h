// Node lists: work is done on this machine alone, since the file system is local.
#pragma once

#include <string>

// True when every node of the comma-separated list is this machine: "all", "localhost" or its host
// name, with or without the domain. Else *foreign is the first that is not.
bool nodesAreLocal(const std::string &nodes, std::string *foreign);
