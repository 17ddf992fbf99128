// Clones and clone parents: the attributes of a file named by its path, the lookup of a clone's parent,
// and the present inode numbers of parents that were made again.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "scan/clone_state.h"

// Sets *clone for a clone or clone parent and fills *attr. The path lies in the active fileset or the
// work directory. Failures are traced; rc is the errno, ENOENT if the object is gone.
Result getCloneXattr(const std::string &path, bool *clone, CloneAttr *attr);

// Sets *from_data if a snapshot file with these attributes is restored from its data like an ordinary
// file: a parent that is itself no clone, or a clone whose parent was gone when the snapshot was taken
// or has gone with the snapshot that held it. In the last case the master tells the user, with `path`
// as the file's name. If it is unknown whether the parent exists, that is traced and printed.
Result restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap,
                        bool *from_data);

// Opens the fileset in the snapshot with this id and keeps the handle until the process ends. ENOENT:
// the fileset has no such snapshot any more. rc of a failure is the errno.
Result otherSnapshot(uint32_t id, kest_fssnap_handle_t **handle);

// Appends the inode number of the clone parent at `path` to the new-parent file of `ino`, its number in
// the snapshot. Failures are traced; EINVAL if the file is no clone parent.
Result recordCloneParentIno(const std::string &path, uint64_t ino);

// Does the same for a clone parent that has a twin in the active fileset and therefore is not made
// again: records the twin's number for `parent`, its number in the snapshot. Does nothing without a
// twin. `path` is that of a clone, for the trace log. Master only.
Result recordTwinParent(const std::string &path, uint64_t parent);

// Finds the present number of the clone parent `ino` of the snapshot: the last recorded number that is
// a clone parent now, else 0.
Result readNewParent(uint64_t ino, uint64_t *now);
