// Making files again and copying data back. Workers.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 1, in phase 51: makes the object with all its data and attributes, the whole file being one
// record. In phase 8: makes the file that linkFile needs, or restores the one that exists at the path
// once more. Failures are traced.
Result restoreDelFile(const Record &record);

// Op 2: extended attributes, a data range and attributes of a file that survived. Failures are traced.
Result restoreDiffFile(const Record &record);

// After the failure of a record, once the failure is marked: gives the file the present as its
// modification time if data was to be restored in it. A file whose data is not all there must not carry
// the snapshot's times.
void markUnfinished(const Record &record);

// After a record that was performed: another worker may have failed at a range of the same file and
// marked it before this one gave it its times. If a failure is marked, so is the file.
void markIfOthersFailed(const Record &record);
