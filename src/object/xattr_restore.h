// Extended attributes of one object.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

// Makes the extended attributes of the object at `path` those of the snapshot inode `ino`, which
// `snapInode` has open. The caller checks -x; this function ignores it. Failures are traced; their rc
// is the errno. Works on every type.
Result restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string &path);

// The same for the object at `path` that is open as `active`. Nothing is done where the facts of both
// say that neither has any. Facts of `active` that the attributes change are changed.
Result restoreXAttrOf(const OpenObject &snap, OpenObject &active, const std::string &path);
