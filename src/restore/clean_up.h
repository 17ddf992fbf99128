// Removing the work directory at the end. Master only.
#pragma once

#include <string>

#include "base/result.h"

// Removes the work directory and everything in it that is the restore's own. Objects of the fileset
// that wait in temporary locations are never removed: without `force` the first one stops the clean-up
// (rc -1); with it they go to their recorded places where these are free, and the rest stays, with the
// whole work directory, after messages that say where. Only clones that wait for their deletion go with
// `force`. Links are not followed, nested filesets not entered. rc of a failure is an errno or -1;
// those of the removal have printed a message.
Result cleanup(const std::string &workDir, bool force);
