// The other nodes of a run: whether they can take part, and whether those of a dead run have ended.
#pragma once

#include <cstddef>
#include <string>

#include "base/result.h"

// Asks every other node of the run once whether it is reachable, has the same version and sees the same
// work directory, fileset and snapshot. Names each that does not. Sets *nodes to the number of nodes,
// including this one. rc of a failure is the errno, after messages. Master only.
Result checkNodes(size_t *nodes);

// Answers checkNodes of another node, whose work directory holds `token`, on standard output. Returns
// the exit status.
int answerNodeCheck(const std::string &token);

// Waits until no process of an earlier run of this fileset can be at work on another node: a node that
// has lost its run ends by itself within seconds. Master only.
void awaitDeadRuns();
