// Appending one record to a side list of the work directory.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "record/aggregate.h"
#include "record/op_code.h"

// Opens `list_path` for shared appending, writes one record (opCode and four zeros) numbered by
// `counter`, counts the operation and closes the file under the name `close_name`. 0, or an errno;
// *opened tells whether the list could be opened (so that callers can name the step). The counter moves
// only when the record was written.
int appendSideRecord(const std::string &list_path, const std::string &close_name, uint64_t ino,
                     std::string_view path, OpCode op, AggregateCounter &counter, bool *opened);
