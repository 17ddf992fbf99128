// Hard links.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 8: gives the inode of the record all the names that it has in the snapshot, as one inode. The path
// is used in trace lines only. Failures are traced.
Result linkFile(const Record &record);
