// The command line.
#pragma once

#include "front/request.h"

namespace front {

// Fills `request`. False: the program ends with *status, and everything is said (help and version on
// standard output, mistakes on standard error).
bool readCommandLine(int argc, char **argv, Request *request, int *status);

}  // namespace front
