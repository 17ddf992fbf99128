// Hard links.
#pragma once

#include <cstdint>

// True when a non-directory has two or more names in the snapshot, or had them in the active fileset
// when the difference was computed. False also on every error, which is traced and recorded as fatal.
// Master only.
bool isHardLinked(uint64_t ino);
