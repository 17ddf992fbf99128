// Makes files again and restores their data. Workers.
#pragma once

#include <vector>

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

// Whether the record restores a range of a file's data.
bool restoresData(const Record &record);

// Call this for records that succeeded and restore data. Another worker can have failed on a range of
// the same file and marked it before this worker restored the times. If a fatal error is recorded,
// marks the files again.
void markIfOthersFailed(const std::vector<Record> &records);
