// Makes read-only snapshots of a subvolume before something changes it.
#pragma once

#include <cstdint>
#include <string>

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// The folder for this program's own snapshots, below the top of the file system. A restore of the
// top-level subvolume leaves it alone.
inline constexpr char kBackupFolder[] = ".fset";

// Makes a snapshot in kBackupFolder at the top of the file system, which only root may enter, and
// returns its path below the top. Throws Trouble if that fails.
std::string takeBtrfsBackup(const Fileset &fileset, Backup kind, int64_t now);

}  // namespace front
