// What only the master does before it begins: checks, lock and work directory.
#pragma once

#include "base/result.h"

// Checks the options and the place from which the program was started, takes the lock of the fileset
// and makes the work directory. handles.rootPath is known. Failures have printed their message, and
// nothing is left of them; rc is an errno, -1, or 1 for a fileset that cannot be restored.
Result prepareMaster();

// For a run that ends before it changed anything: gives the root directory the flags again that had to
// be cleared to make the work directory in it.
void putBackRootFlags();
