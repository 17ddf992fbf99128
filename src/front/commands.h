// The commands. Each returns the exit status and throws Trouble if it cannot do its work.
#pragma once

#include "front/request.h"

namespace front {

int listCommand(const Request &request);
int diffCommand(const Request &request);
// For restore and undo.
int restoreCommand(const Request &request);
int progressCommand(const Request &request);
// For the shell's completion: prints the possible words of the kind in request.snapshot, "snapshots" or
// "filesets". Each line is a word, a tab, and the date of a snapshot.
int completeCommand(const Request &request);

}  // namespace front
