// The lists of operations, one record a line (but a path can contain newlines):
//
//   <aggregate>:<n>:<inode, hex, padded with blanks>:<generation>:<snapshot>:<n>:<n>:<n>:
//   <length>!<path>:<length>!<text>;<length>!<op string>\n
//
// Only the lengths delimit path, text and op string: a path can contain any byte except NUL, also ':',
// '!' and newlines. The restore writes "%lld:0:%11llx:0:0:0:0:0:%d!%s:0!;%d!%s\n".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/result.h"
#include "formats/operation.h"

constexpr size_t kListRecordMax = 16384;  // bytes; a longer record is damaged

// A parsed record. Its strings point into the parsed text.
struct ListedRecord {
  int64_t aggregate = 0;  // records of one aggregate stay together
  uint64_t ino = 0;
  uint64_t generation = 0;    // 0 in lists of the restore
  uint64_t snapshot = 0;      // 0 in lists of the restore
  std::string_view path;      // 1 to 4095 bytes other than NUL
  std::string_view opString;  // one word of 1 to kOpStringMax characters
  std::string_view whole;     // the whole record with its newline
};

// Returns one record with its newline.
std::string formatListRecord(int64_t aggregate, uint64_t ino, std::string_view path,
                             const Operation &op);

// Why, and where, a text is no record.
struct RecordProblem {
  const char *what = "";
  size_t at = 0;  // offset in the record
};

// Parses one record at the start of `text`; record->whole tells its length. Returns false and *problem
// (may be null) if there is no complete record.
bool parseListRecord(std::string_view text, ListedRecord *record, RecordProblem *problem = nullptr);

// Reads a list, once or several times, record by record. Reads only as far as the list went when it was
// opened: records that are appended during a run belong to the next run.
class ListReader {
 public:
  explicit ListReader(size_t piece = 128 * 1024) : reader_(piece) {}

  // rc of a failure is the errno; EINVAL or EISDIR: `file` is no regular file.
  Result open(UniqueFd file);

  // Reads the record at the current position; it is valid until the next call. Sets *end after the last
  // record. rc of a failure is the errno; EINVAL: the list is damaged. problem() explains it.
  Result next(ListedRecord *record, bool *end);

  uint64_t position() const { return reader_.position(); }  // bytes
  void seek(uint64_t position) { reader_.seek(position); }
  // Returns what is wrong, with the position in the list.
  const std::string &problem() const { return problem_; }
  // Returns the text that is no record, at most `most` bytes, for a message.
  std::string textHere(size_t most);

 private:
  Result peek(size_t want, std::string_view *text);

  FileReader reader_;
  uint64_t size_ = 0;  // size of the list in bytes when it was opened
  std::string problem_;
};
