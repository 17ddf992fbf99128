// Extended attributes of one object.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "run/run_handles.h"

// Makes the extended attributes of the object at `path` those of the snapshot inode `ino`, which
// `snapInode` has open. The caller checks -x; this function ignores it. Failures are traced; their rc
// is the errno. Works on every type.
Result restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string &path);

// The same for the object at `path` that `active` has open.
Result restoreXAttrOf(kest_ifile_t *snapInode, kest_ifile_t *active, const std::string &path);
