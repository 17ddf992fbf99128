// Services of the file system's administration commands. Master only.
#pragma once

#include <string_view>

// 0 for a fileset that may be restored, 1 for one of the remote-caching kind (or when the answer cannot
// be read), -1 when the command cannot be started.
int checkFilesetType();

// Whether the listing of one fileset (a line of titles, a line of fields) says that nothing caches it.
bool isLocalFileset(std::string_view listing);

// Writes the list of the fileset's snapshots to snapList. 1, or 0 after a trace line.
int listSnapshots();

// Commits the file system (suspend and resume) and makes "/" the current directory. 0; else the exit
// status of the command, an errno or -1.
int syncFileset();
