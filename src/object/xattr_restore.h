// Extended attributes of one object.
#pragma once

#include <cstdint>
#include <string>

#include "run/run_handles.h"

// Makes the extended attributes of the object at `path` (null: of the active inode with number `ino`)
// those of the snapshot inode `ino`, which `snapInode` has open. Nothing with -x is the caller's
// matter. 0 or an error code. Works on every type.
int restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string *path);

// The same for the object at `path` that `active` has open.
int restoreXAttrOf(kest_ifile_t *snapInode, kest_ifile_t *active, const std::string &path);
