// Clone lists. Restoring clones is not built yet: a clone that would have to be restored or deleted
// ends the run with a message, before anything was done to it.
#pragma once

#include <string>

#include "kest.h"

// True when the open inode is a clone or a clone parent. Asked by inode, since a path may name another
// object in the snapshot.
bool carriesCloneAttr(kest_ifile_t *file);

// -1 and errno ENOTSUP, after a message on standard error that names the file. `del`: the active file
// was to be deleted, else restored by cloning.
int listClone(const std::string &path, bool del);
