// The commands. Each returns the exit status and throws Trouble where it cannot do what it is for.
#pragma once

#include "front/request.h"

namespace front {

int listCommand(const Request &request);
int diffCommand(const Request &request);
// restore and undo.
int restoreCommand(const Request &request);
int progressCommand(const Request &request);
// For the completion of the shell: what the word after request.snapshot, "snapshots" or "filesets",
// can be, a line each: the word, a tab, and the date of a snapshot.
int completeCommand(const Request &request);

}  // namespace front
