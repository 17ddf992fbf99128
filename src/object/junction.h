// Junctions: where another fileset is linked into the tree.
#pragma once

#include <string>

#include "base/result.h"
#include "kest.h"

// True for an entry that is a junction; `path` names it or its directory in the trace log.
bool isJunction(const std::string &path, const kest_direntx64_t &entry);

// Whether a junction stands at `path`: its entry is searched in the parent directory, and counts as one
// when it is not found there. Failures are traced; their rc is -1.
Result checkJunction(const std::string &path, bool *junction);

// Unlinks the fileset at `path`; its data moves to .unlinked at the top of the file system, and a
// message names the place, and the fileset by the path `shown`. `home`, if not empty, is where the
// snapshot has it, where it could not be moved. Fails with rc -1, after a message, when the command is too
// long, cannot be started or fails.
Result unlinkJunction(const std::string &path, const std::string &shown, const std::string &home = "");
