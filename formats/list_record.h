// The lists of operations: one record a line, but for what its path holds.
//
//   <aggregate>:<n>:<inode, hex, padded with blanks>:<generation>:<snapshot>:<n>:<n>:<n>:
//   <length>!<path>:<length>!<text>;<length>!<op string>\n
//
// Path, text and op string are found by their lengths alone: a path holds any byte but NUL, also ':',
// '!' and newlines. The restore writes "%lld:0:%11llx:0:0:0:0:0:%d!%s:0!;%d!%s\n".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/result.h"
#include "formats/operation.h"

constexpr size_t kListRecordMax = 16384;  // bytes; a longer one is damaged

// Views into the text that was parsed.
struct ListRecord {
  int64_t aggregate = 0;  // records of one aggregate stay together
  uint64_t ino = 0;
  uint64_t generation = 0;    // 0 in our lists
  uint64_t snapshot = 0;      // 0 in our lists
  std::string_view path;      // 1 to 4095 bytes, none of them NUL
  std::string_view opString;  // one word of 1 to kOpStringMax characters
  std::string_view whole;     // the record with its newline
};

// One record with its newline.
std::string formatListRecord(int64_t aggregate, uint64_t ino, std::string_view path,
                             const Operation &op);

// Where and why a text is no record.
struct RecordProblem {
  const char *what = "";
  size_t at = 0;  // offset from the start of the record
};

// Takes one record from the start of `text`; record->whole tells how long it is. False and *problem
// (may be null) where no whole record stands.
bool parseListRecord(std::string_view text, ListRecord *record, RecordProblem *problem = nullptr);

// Reads a list, once or more, record by record: always only as far as it went when it was opened, for
// what is appended during a run belongs to the next one.
class ListReader {
 public:
  explicit ListReader(size_t piece = 128 * 1024) : reader_(piece) {}

  // rc of a failure is the errno; EINVAL or EISDIR where `file` is no regular file.
  Result open(UniqueFd file);

  // The record at the current position, valid until the next call; *end is set where none is left. rc
  // of a failure is the errno, EINVAL where the list is damaged; problem() says more.
  Result next(ListRecord *record, bool *end);

  uint64_t position() const { return reader_.position(); }  // bytes
  void seek(uint64_t position) { reader_.seek(position); }
  // What is wrong, with the byte of the list.
  const std::string &problem() const { return problem_; }
  // The text that is no record, at most `most` bytes; for messages.
  std::string textHere(size_t most);

 private:
  Result peek(size_t want, std::string_view *text);

  FileReader reader_;
  uint64_t size_ = 0;  // bytes of the list when it was opened
  std::string problem_;
};
