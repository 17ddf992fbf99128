// The walk over a directory that only the snapshot has. Master only.
#pragma once

#include <cstdint>
#include <string>

// Lists what is needed to make the contents of snapshot directory `ino` again at `path`, in the set of
// the top deleted directory `rootIno`. The caller has raised dirDepth. 0, an errno, -1 or a callee's
// rc.
int traverseDelDir(uint64_t rootIno, std::string &path, uint64_t ino);
