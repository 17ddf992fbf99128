// Snapshot objects met under another name or in a temporary location.
#pragma once

#include <cstdint>
#include <string>

#include "kest.h"

// An entry that the snapshot has at `path` and whose object lives on elsewhere: records the
// destination. A non-directory of this pass that already waits in its temporary location (a dead run or
// an earlier pass put it there) also gets its changed data and its way back listed. 0 or a callee's rc.
int fetchMovedObject(const std::string &path, const kest_direntx64_t &entry);

// A directory of the snapshot that a user renamed or moved, at `path`: moves it aside, lists it if it
// changed (`changed`), walks it at its new place and, in pass 1, lists it for the final directory move.
// A directory that has vanished is passed over. The step that failed is in *step. 0 or a callee's rc.
enum class AsideStep { kNone, kMove, kList, kWalk, kMoveBack };
int setAsideDirectory(const std::string &path, uint64_t ino, bool changed, AsideStep *step,
                      std::string *newPath);
