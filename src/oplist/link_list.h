// link.ino: hard-linked inodes whose names are put right in the last phase. Master only.
#pragma once

#include <cstdint>
#include <string>

// Records the inode once, by number, under the first name met; 0 when it is recorded (now or before),
// -1.
int listLink(const std::string &path, uint64_t ino);
