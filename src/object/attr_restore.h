// Owner, ACL, mode, times and flags of one object.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

// Makes them those of the object's snapshot copy. In phases 0 to 2 nothing. Files, links, FIFOs,
// sockets and devices: everything, in every phase. Directories: the owner alone before phase 6,
// everything in it. Flags come last, set or cleared as the snapshot has them. An object that the
// snapshot does not hold is left as it is. Failures are traced; their rc is -1. The path may lie in a
// temporary location.
Result restoreAttr(const std::string &path, int32_t phase);

// The same for the object at `path` that is open as `active`; `snap` is its snapshot copy. What the
// facts of both say is equal is left alone. `data_written`: the file's data were written since the
// facts were read, which changes its times.
Result restoreAttrOf(const std::string &path, const OpenObject &snap, OpenObject &active, int32_t phase,
                     bool data_written);

// The modification time that a clone parent has from before it is one until every clone that survived
// knows its number, and that restoreAttr gives it in the clones' phase. A run that dies meanwhile
// leaves a file that is not the snapshot's, so that the next one makes it again and finds the clones.
kest_timestruc64_t unsettledTime(const kest_timestruc64_t &mtime);

// The same for the root directory of the fileset, extended attributes included (unless -x); called
// once, when nothing changes the root directory any more.
Result restoreRootAttr();
