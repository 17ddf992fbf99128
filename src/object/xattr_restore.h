// Restores the extended attributes of one object.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

// Gives the object at `path`, of any type, exactly the extended attributes of the snapshot inode `ino`,
// which is open as `snapInode`. The caller checks -x; this function ignores it. Failures are traced; rc
// is the errno.
Result restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string &path);

// Like restoreXAttr, for the object at `path` that is open as `active`. Does nothing if the facts say
// that neither object has attributes. Updates those facts of `active` that attributes affect.
Result restoreXAttrOf(const OpenObject &snap, OpenObject &active, const std::string &path);
