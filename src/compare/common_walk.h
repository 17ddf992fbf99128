// The walk over a directory that snapshot and active fileset share. Master only.
#pragma once

#include <cstdint>
#include <string>

// Walks the directory `ino` at `path` (active path or temporary location) for the current pass and
// everything below it that leads to a change (kest_leads_to_change), writing lists and moving aside
// renamed directories. 0; else an errno, -1 or the rc of the step that failed, which ends the whole
// walk.
int traverseCommonDir(const std::string &path, uint64_t ino);

// From the second pass on, after the root's walk: walks every directory that waits in a temporary
// location.
int walkMovedDirs();
