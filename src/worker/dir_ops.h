// Making and removing directories.
#pragma once

#include <cstdint>
#include <string>

// Op 3. In pass 1 and in phase 6: makes the directory and restores its attributes; outside phase 6 lists it
// for that phase. Then, for a top directory, its per-directory lists. 0 or non-zero and errno.
int crDir(const std::string &path, uint64_t ino);

// Op 6. For a top directory its per-directory lists, then the directory itself, if it still is `ino`. A
// directory that only holds what the restore leaves alone (snapshots) stays, with a message. 0 or non-zero
// and errno.
int delDir(const std::string &path, uint64_t ino);
