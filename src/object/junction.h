// Junctions: where another fileset is linked into the tree.
#pragma once

#include <string>

#include "kest.h"

// With an entry: 1 or 2 for a junction, else 0. Without one: the entry is searched in its parent directory;
// 2 also when it is not found there, -1 after a trace line. `path` is the entry's path or its directory's.
int checkJunction(const std::string &path, const kest_direntx64_t *entry);

// Unlinks the fileset at `path`; its data moves to .unlinked at the top of the file system, and the user is
// told. 0, or -1 when the command is too long, cannot be started or fails.
int unlinkJunction(const std::string &path);
