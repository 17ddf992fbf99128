// The records of one file's data: changed ranges of a surviving file, all of a deleted one. Master
// only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "run/work_file.h"

// How a writer of records names itself and which code its failure to write an op 1 record has.
struct RangeWriter {
  const char *name;  // in trace lines
  int creationCode;
};

// Op 2 records in `list`: cuts or extends the active file at `path` to the snapshot's size, then lists
// the ranges in which it differs, with short equal data between neighbours; an object without a
// differing range gets one record without a range, which restores its attributes. rc of a failure is
// -1, or the errno where a record could not be written.
Result listChangedFile(const RangeWriter &writer, WorkFile &list, const std::string &path,
                       uint64_t ino);

// Op 1: the creation record in `copy_list`, with all data as its range. A clone whose parent still
// exists gets the record of its depth's clone list instead, any other parent both. rc of a failure is
// -1 or an errno.
Result listDeletedFile(const RangeWriter &writer, WorkFile &copy_list, const std::string &path,
                       uint64_t ino);
