// Makes read-only snapshots of a fileset before something changes it.
#pragma once

#include <cstdint>
#include <string>

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// Makes a snapshot in kBackupFolder at the top of the file system, which only root may enter, and
// returns its path below the top. Throws Trouble if that fails.
std::string takeBackup(const Fileset &fileset, Backup kind, int64_t now);

}  // namespace front
