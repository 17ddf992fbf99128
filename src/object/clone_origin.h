// Where the parent of a clone of the snapshot is to be had.
#pragma once

#include <cstdint>
#include <string>

#include "scan/clone_state.h"

// True when a file of the snapshot with these attributes is restored from its data, as an ordinary file
// is: a parent that is no clone, and a clone whose parent was gone when the snapshot was taken, or went
// with the snapshot that held it. The latter is told to the user by the master; `path` names the file.
bool restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap);

// The fileset in the snapshot with this id; null and errno when it is no snapshot of the fileset any
// more. The handle stays open until the process ends.
kest_fssnap_handle_t *otherSnapshot(uint32_t id);
