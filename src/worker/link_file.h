// Restores hard links.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 8: gives the record's inode all names that it has in the snapshot, as one inode. The record's path
// is only for the trace log. Failures are traced.
Result linkFile(const Record &record);
