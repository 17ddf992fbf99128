// Services of the file system's administration commands. Master only.
#pragma once

#include <string_view>

#include "base/result.h"

// Whether the fileset may be restored. rc of a failure, after a message, is 1 for one of the
// remote-caching kind, -1 where that could not be found out.
Result checkFilesetType();

// Whether the listing of one fileset (a line of titles, a line of fields) says that nothing caches it.
bool isLocalFileset(std::string_view listing);

// Writes the list of the fileset's snapshots to snapList. Where that fails, which is traced, there is
// none, and the module that needs it says so.
void listSnapshots();

// Commits the file system (suspend and resume) and makes "/" the current directory. rc of a failure is
// the exit status of the command, an errno or -1.
Result syncFileset();
