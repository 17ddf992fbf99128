// Clones and clone parents: the attributes of a file that a path names, where the parent of a clone is
// found, and the numbers that parents made again have now.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "scan/clone_state.h"

// True for a clone or clone parent, with its attribute in *attr; false otherwise, also on every error
// (traced). `snap` may be null. The path lies in the active fileset, the work directory or the
// snapshot.
bool getCloneXattr(const std::string &path, CloneAttr *attr, CloneSnapAttr *snap);

// Reads the file-system attribute "kest.<name>" of an open descriptor; *present tells whether there is
// one.
Result getFileAttribute(int fd, const std::string &name, std::vector<uint8_t> *value, bool *present);

// True when a file of the snapshot with these attributes is restored from its data, as an ordinary file
// is: a parent that is no clone, and a clone whose parent was gone when the snapshot was taken, or went
// with the snapshot that held it. The master tells the user of the latter case; `path` names the file.
bool restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap);

// The fileset in the snapshot with this id. ENOENT when it is no snapshot of the fileset any more. The
// handle stays open until the process ends. rc of a failure is the errno.
Result otherSnapshot(uint32_t id, kest_fssnap_handle_t **handle);

// Appends the inode number of the clone parent at `path` to the new-parent file of `ino`, its number in
// the snapshot. Failures are traced; EINVAL where the file is no clone parent.
Result recordCloneParentIno(const std::string &path, uint64_t ino);

// The same for a clone parent that has a twin in the active fileset and is not made again, in the file
// of `parent`, its number in the snapshot; `path` is that of a clone, for trace lines. Nothing where it
// has no twin. Master only.
Result recordTwinParent(const std::string &path, uint64_t parent);

// The number that the clone parent `ino` of the snapshot has now: the last recorded one that is a
// living clone parent. *now is 0 when there is none.
Result readNewParent(uint64_t ino, uint64_t *now);
