// Removes the work directory at the end of a run. Master only.
#pragma once

#include <string>

#include "base/result.h"

// Removes the work directory and everything in it that the restore has made. Never deletes objects of
// the fileset that wait in temporary locations. Without `force` the first such object stops the
// clean-up (rc -1). With `force` they are moved to their recorded places, and clones that wait for
// their deletion are deleted; if some object cannot be moved, the whole work directory stays, and
// messages say where. Does not follow links and does not enter nested filesets. rc of a failure is an
// errno or -1; failures of the removal print a message.
Result cleanup(const std::string &workDir, bool force);
