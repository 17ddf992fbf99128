// The lines of <ino>.clone.newParent, each the inode number of a file that took the place of a clone
// parent.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Returns the line with its newline.
std::string formatNewParentLine(uint64_t ino);

// Parses the last line of *rest that is a number and removes it with everything after it. Passes over
// other lines, and over a last line without a newline: its writer died. Returns false if there is none.
bool takeLastNewParent(std::string_view *rest, uint64_t *ino);
