// How differences look on a terminal.
#pragma once

#include <string>

#include "front/difference.h"

namespace front {

// True where standard output is a terminal that shows colours, and NO_COLOR is not set.
bool inColour();

// The counts by effect, then by top directory, the largest first; lines with newlines.
std::string summaryText(const Summary &summary);

// "+ projects/a  (file, 12.0 KiB)", with a newline.
std::string objectLine(const ChangedObject &object, bool colour);

}  // namespace front
