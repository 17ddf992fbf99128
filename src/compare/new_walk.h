// The walk over a directory that only the active fileset has. Master only.
#pragma once

#include <cstdint>
#include <string>

// Lists what must go, in the set of the top new directory `rootIno`, and takes out what the snapshot
// has. The caller has set dirDepth. 0, an errno, -1 or a callee's rc.
int traverseNewDir(uint64_t rootIno, std::string &path, uint64_t ino);
