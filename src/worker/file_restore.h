// Makes files again and restores their data. Workers.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 1. In phase 51, makes the object with its attributes and, as one record, all its data. In phase 8,
// makes the file that linkFile needs, or restores the existing one at the path once more. Failures are
// traced.
Result restoreDelFile(const Record &record);

// Op 2: restores the extended attributes, one data range and the attributes of a surviving file.
// Failures are traced.
Result restoreDiffFile(const Record &record);

// Call this for a record that failed, after setFatalError. If the record restores data, sets the file's
// modification time to the present: an incomplete file must not carry the snapshot's times, or the next
// run would take it for unchanged.
void markUnfinished(const Record &record);

// Call this for a record that succeeded. Another worker can have failed on another range of a changed
// file and marked it before this worker restored the times. If a fatal error is recorded, marks the
// file again.
void markIfOthersFailed(const Record &record);
