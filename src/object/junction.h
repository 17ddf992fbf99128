// Junctions: directory entries at which another fileset is linked into the tree.
#pragma once

#include <string>

#include "base/result.h"
#include "kest.h"

// Returns true if the entry is a junction. `path` is for the trace log.
bool isJunction(const std::string &path, const kest_direntx64_t &entry);

// Sets *junction if the entry at `path` is a junction. Searches the entry in the parent directory; one
// that is not listed there counts as a junction, too. Failures are traced; rc is -1.
Result checkJunction(const std::string &path, bool *junction);

// Unlinks the fileset at `path`: its data moves to .unlinked at the top of the file system, and a
// message names that place and `shown`, the path by which the user knows the fileset. `home`, unless
// empty, is the place in the snapshot to which it could not be moved. If the command is too long,
// cannot be started or fails, prints a message and fails with rc -1.
Result unlinkJunction(const std::string &path, const std::string &shown, const std::string &home = "");
