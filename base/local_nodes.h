// Node lists: names of machines that share the work of a run, separated by commas.
#pragma once

#include <string>

// The nodes of "all", one a line.
inline constexpr char kNodesFile[] = "/usr/qtx/kest/etc/nodes";

// A run has at most this number of nodes: each process of a run has a number below 2^31 that holds the
// number of its node, and Linux has process IDs below 2^22.
inline constexpr int kProcessBits = 22, kMostNodes = 511;

// Returns true if `node` is this machine: "localhost" or its host name, with or without the domain.
bool isThisMachine(const std::string &node);

// Returns true if every node of the list is this machine, or "all". Otherwise sets *foreign to the
// first other node.
bool nodesAreLocal(const std::string &nodes, std::string *foreign);
