// dir.new: directories whose attributes are restored at the very end.
#pragma once

#include <cstdint>
#include <string>

// Appends one op 3 record; 0 or an errno. `path` in the active fileset or a temporary location, `ino` the
// directory's inode number in the snapshot. Master and workers.
int listNewDir(const std::string &path, uint64_t ino);
