// Parses the command line.
#pragma once

#include "front/request.h"

namespace front {

// Fills `request`. Returns false if the program must end with *status; then everything has been printed
// (help and version on standard output, errors on standard error).
bool readCommandLine(int argc, char **argv, Request *request, int *status);

}  // namespace front
