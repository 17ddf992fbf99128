// Formats differences for a terminal.
#pragma once

#include <string>

#include "front/difference.h"

namespace front {

// Returns true if standard output is a terminal with colours and NO_COLOR is not set.
bool inColour();

// Returns the counts by effect, then by top directory, largest first, as lines with newlines.
std::string summaryText(const Summary &summary);

// Returns a line such as "+ projects/a  (file, 12.0 KiB)", with a newline.
std::string objectLine(const ChangedObject &object, bool colour);

}  // namespace front
