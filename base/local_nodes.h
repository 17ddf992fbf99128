// Node lists: names of machines that share the work of a run, divided by commas.
#pragma once

#include <string>

// Returns true if `node` is this machine: "localhost" or its host name, with or without the domain.
bool isThisMachine(const std::string &node);

// Returns true if every node of the list is this machine, or "all". Otherwise sets *foreign to the
// first other node.
bool nodesAreLocal(const std::string &nodes, std::string *foreign);
