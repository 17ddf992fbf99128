// Removing the work directory at the end. Master only.
#pragma once

#include <string>

// Removes the work directory and everything in it that is the restore's own. Objects of the fileset
// that wait in temporary locations are never removed: without `force` the first one stops the clean-up
// (-1); with it they go to their recorded places where these are free, and the rest stays, with the
// whole work directory, after messages that say where. Only clones that wait for their deletion go with
// `force`. Links are not followed, nested filesets not entered. 0, -1, an errno or the exit status of
// the final command.
int cleanup(const std::string &workDir, bool force);
