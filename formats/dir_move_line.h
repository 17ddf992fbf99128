// The lines of dirMoveList, each the inode number of a directory that goes home at the end of a run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Returns the line with its newline.
std::string formatDirMoveLine(uint64_t ino);

// Moves the first line of *rest to *line, without its newline, and parses it. Returns false if it is
// incomplete or no number.
bool takeDirMoveLine(std::string_view *rest, std::string *line, uint64_t *ino);
