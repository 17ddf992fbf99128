// List records and op strings: what the lists of the work directory hold.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "record/op_code.h"
#include "run/file_reader.h"
#include "run/work_file.h"

struct OpString {
  int32_t opCode = 0;
  int64_t offset = 0;     // bytes; data ranges only
  uint64_t length = 0;    // bytes; data ranges only
  int32_t holeFound = 0;  // the snapshot's file has a hole there
  int32_t clone = 0;
};

// "%d,%ld,%lu,%d,%d".
std::string formatOpString(int32_t opCode, int64_t offset = 0, uint64_t length = 0,
                           int32_t holeFound = 0, int32_t clone = 0);
// False when the text does not start with five comma-separated numbers.
bool parseOpString(std::string_view text, OpString *out);

// One record with its newline: "%lld:0:%11llx:0:0:0:0:0:%d!%s:0!;%d!%s\n".
std::string formatListRecord(int64_t aggregate, uint64_t ino, std::string_view path,
                             std::string_view opString);

// Appends one record; 0, or -1 and errno.
int writeListRecord(WorkFile &stream, int64_t aggregate, uint64_t ino, std::string_view path,
                    std::string_view opString);

struct ListRecordFields {
  int64_t aggregate = 0;
  uint64_t ino = 0;
  std::string_view path;  // any bytes
  std::string_view opString;
  std::string_view whole;  // the record with its newline
};

// Reads the record at *position of `text` by its lengths and moves *position behind its newline.
// False, with *position unchanged, where no whole record stands.
bool parseListRecord(std::string_view text, size_t *position, ListRecordFields *out);

constexpr size_t kListRecordMax = 16384;  // bytes; a longer one is damaged

// Reads the record that follows in `list`: 1; 0 at the end; -1 and errno, EINVAL where no whole record
// stands. Its texts are valid until the next call.
int readListRecord(FileReader &list, ListRecordFields *out);
