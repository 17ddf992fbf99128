// The steps that only the master takes before a restore: checks, the lock and the work directory.
#pragma once

#include "base/result.h"

// Checks the options and the current directory, locks the fileset and makes the work directory. Needs
// handles.rootPath. A failure prints a message and leaves nothing behind; rc is an errno, -1, or 1 for
// a fileset that cannot be restored.
Result prepareMaster();

// Sets the flags of the root directory again that had to be cleared to make the work directory. For a
// run that ends before it changed anything.
void putBackRootFlags();
