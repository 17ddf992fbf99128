// Op 11: comparing a group of directories of both trees.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Compares the directories in the record's range of the file at its path and writes what differs to the
// part of this group, which appears whole or not at all. rc of a failure is the errno.
Result compareGroup(const Record &record);
