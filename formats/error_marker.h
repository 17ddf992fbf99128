// The text of fatal.error, to which every worker that fails appends a line.
#pragma once

#include <string>
#include <string_view>

// Returns the line of an errno with its newline.
std::string formatErrorLine(int code);

// Parses the errno of the first line, which can be cut off. Returns false if it does not begin with a
// number greater than 0.
bool parseErrorMarker(std::string_view text, int *code);
