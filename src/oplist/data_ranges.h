// The records of one file's data: changed ranges of a surviving file, all of a deleted one.
#pragma once

#include <cstdint>
#include <string>

#include "run/work_file.h"

// How a writer of records names itself, where its records go, and which codes its failures have.
struct RangeWriter {
  const char *name;  // in trace lines
  WorkFile *list;    // op 2 records
  int creationCode;  // the op 1 record could not be written
};

struct ListResult {
  int rc = 0;
  int code = 0;  // which step failed
};

// Op 2: cuts or extends the active file at `path` to the snapshot's size, then lists the ranges in
// which it differs, with what little lies between neighbours; an object without a differing range gets
// one record without a range, which restores its attributes.
ListResult listChangedFile(const RangeWriter &writer, const std::string &path, uint64_t ino);

// Op 1: the creation record in opList.copy, with all data as its range. Of a clone whose parent is to be
// had the record of its depth's clone list, of any other parent both.
ListResult listDeletedFile(const RangeWriter &writer, const std::string &path, uint64_t ino);
