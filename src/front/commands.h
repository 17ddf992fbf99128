// The commands. Each returns the exit status and throws Trouble where it cannot do what it is for.
#pragma once

#include "front/request.h"

namespace front {

int listCommand(const Request &request);
int diffCommand(const Request &request);
// restore and undo.
int restoreCommand(const Request &request);
int progressCommand(const Request &request);

}  // namespace front
