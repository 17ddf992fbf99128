// Uses the administration commands of the file system. Master only.
#pragma once

#include <string_view>

#include "base/result.h"

// Checks that the fileset can be restored. A failure prints a message; its rc is 1 for a fileset with
// remote caching, -1 if the type could not be determined.
Result checkFilesetType();

// Returns true if the listing of one fileset (a header line and a line of fields) names no remote
// cache.
bool isLocalFileset(std::string_view listing);

// Writes the list of the fileset's snapshots to snapList. A failure is traced and leaves no list; the
// module that needs the list reports that.
void listSnapshots();

// Commits the file system (suspend and resume) and changes to "/". rc of a failure is the command's
// exit status, an errno or -1.
Result syncFileset();
