// Read-only snapshots of a fileset as it is before something changes it.
#pragma once

#include <cstdint>
#include <string>

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// Takes one in the folder kBackupFolder at the top of the file system, which only root may enter, and
// returns its path below the top. Throws Trouble where it cannot be taken.
std::string takeBackup(const Fileset &fileset, Backup kind, int64_t now);

}  // namespace front
