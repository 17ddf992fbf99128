// The snapshots of CephFS directories, which are in their `.snap`.
#pragma once

#include "front/snapshot_store.h"

namespace front {

// The virtual directory that shows the snapshots of each directory.
inline constexpr char kSnapFolder[] = ".snap";

// Returns true for the name under which `.snap` shows a snapshot of a directory above: _NAME_NUMBER.
// CephFS lets no snapshot of the directory itself begin like that. The restore refuses such snapshots.
bool isSnapshotFromAbove(const std::string &name);

const SnapshotStore &cephStore();

}  // namespace front
