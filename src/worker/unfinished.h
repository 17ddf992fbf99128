// Files whose data could not all be restored: they must not carry the snapshot's times. Workers.
#pragma once

#include <string>

#include "record/record_format.h"

// After the failure of a record, once the failure is marked: gives the file the present as its
// modification time if data was to be restored in it.
void markUnfinished(const std::string &path, uint64_t ino, const OpString &op);

// After a record that was performed: another worker may have failed at a range of the same file and
// marked it before this one gave it its times. If a failure is marked, so is the file.
void markIfOthersFailed(const std::string &path, uint64_t ino, const OpString &op);
