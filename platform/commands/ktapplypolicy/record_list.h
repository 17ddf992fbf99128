// The list of records that a run executes.
//
// One record:
//   <aggregate>:<n>:<inode, hex, padded with blanks>:<generation>:<snapshot>:<n>:<n>:<n>:
//   <length>!<path>:<length>!<text>;<length>!<operation>\n
// (one line, but for what the path holds). Path, text and operation are found by their lengths alone: a
// path holds any byte but NUL, also ':', '!' and newlines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "btrfs/unique_fd.h"
#include "commands/ktapplypolicy/run_directory.h"

namespace kest {

inline constexpr uint64_t kLargeRange = 65536;  // bytes

struct ListRecord {
  int64_t aggregate = 0;
  uint64_t inode = 0;
  uint64_t generation = 0;
  uint64_t snapshot = 0;
  std::string path;       // not escaped, below 4096 bytes
  std::string operation;  // one word, below 128 bytes

  // A byte range of a file that is worth a worker: operation 1 or 2 with kLargeRange bytes or more.
  bool isLargeRange() const;
};

// Takes one record from the start of `data`. The number of bytes it took, or 0 with *problem set and
// *problem_at the offset in `data` at which it stopped making sense.
size_t parseListRecord(std::string_view data, ListRecord *record, std::string *problem,
                       size_t *problem_at);

// Reads a list once or more, always only as far as it went when it was opened: what workers append
// during the run belongs to the next one.
class RecordList {
 public:
  // 0 or -errno.
  int open(const std::string &path, const RunDirectory &directory = {});

  // 1 and the next record; 0 at the end; -1 when the list cannot be read on: problem() says why and
  // at which byte.
  int next(ListRecord *record);
  void rewind();

  const std::string &problem() const { return problem_; }

 private:
  int fill();

  UniqueFd fd_;
  uint64_t size_ = 0;
  uint64_t loaded_ = 0;  // bytes of the file that have been in the buffer
  std::string buffer_;
  size_t at_ = 0;  // next record in the buffer
  std::string problem_;
};

}  // namespace kest
