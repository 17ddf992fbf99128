// The node of a process, in a run that several nodes share.
#pragma once

#include <cstdint>

// Returns the number of this node: 0 the master's, else its place in the list of nodes, from 1.
int nodeNumber();

// Returns the number by which workers name this process, which started them. Process IDs of different
// nodes can be equal, these numbers cannot. The master's is its process ID.
int32_t callerNumber();

// Says so, and waits until nothing works on another node any more for an engine that was killed: a node
// that has lost its engine ends its work by itself within seconds. A stop signal ends the waiting.
void awaitDeadNodes();
