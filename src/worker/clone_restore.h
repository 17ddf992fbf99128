// Clones are not restored yet.
#pragma once

#include <cstdint>
#include <string>

// Op 10: fails with ENOTSUP and a message. Lists never hold this code until clones are restored.
int cloneFile(const std::string &path, uint64_t ino);
