// Writes the records of one file's data: the changed ranges of a surviving file, all data of a deleted
// one. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "run/work_file.h"

// The name of the writing routine and its step code for an op 1 record that cannot be written.
struct RangeWriter {
  const char *name;  // in trace lines
  int creationCode;
};

// Truncates or extends the active file at `path` to the snapshot's size, then writes op 2 records to
// `list` for the ranges in which it differs. Ranges close to each other become one. Without a differing
// range, one record without a range restores the attributes. rc of a failure is -1, or the errno if a
// record could not be written.
Result listChangedFile(const RangeWriter &writer, WorkFile &list, const std::string &path,
                       uint64_t ino);

// Writes an op 1 record, which makes the file with all its data, to `copy_list`. A clone whose parent
// exists gets a record in the clone list of its depth instead; any other clone parent gets both. rc of
// a failure is -1 or an errno.
Result listDeletedFile(const RangeWriter &writer, WorkFile &copy_list, const std::string &path,
                       uint64_t ino);
