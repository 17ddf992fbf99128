// Removing names.
#pragma once

#include <cstdint>
#include <string>

// Op 7. 0, also when the name is gone already, or non-zero and errno.
int deleteFile(const std::string &path, uint64_t ino);
