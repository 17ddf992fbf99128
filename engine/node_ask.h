// Asks every other node, before a run, whether it can take part.
#pragma once

#include <string>
#include <vector>

#include "engine/node_list.h"

// Runs `command`, a text for a shell, on every node but this machine, on all at the same time. Names
// each node that cannot be reached, or on which the command fails or does not print the line `answer`.
// Returns true if there is none.
bool askNodes(const std::vector<Node> &nodes, const std::string &command, const std::string &answer);
