// Reads and writes everything in spite of signals and short transfers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

// Writes all of `text`. rc of a failure is the errno.
Result writeAll(int fd, std::string_view text);

// Empties `text` and reads from the current position to the end, at most `most` bytes. rc of a failure
// is the errno.
Result readToEnd(int fd, std::string *text, size_t most = SIZE_MAX);

// Reads a file of any size in pieces.
class FileReader {
 public:
  explicit FileReader(size_t piece = 128 * 1024) : piece_(piece) {}  // `piece`: bytes of one read

  // Starts reading `file` from its beginning.
  void open(UniqueFd file);
  void seek(uint64_t position);

  // Returns the bytes at the current position: at least `want`, or fewer at the end of the file. `text`
  // is valid until the next call. rc of a failure is the errno; `text` then holds the bytes before the
  // failure.
  Result peek(size_t want, std::string_view *text);
  // Advances by bytes that peek returned.
  void skip(size_t bytes) { at_ += bytes; }
  uint64_t position() const { return read_ - buffer_.size() + at_; }

 private:
  const size_t piece_;
  UniqueFd fd_;
  std::string buffer_;
  size_t at_ = 0;        // offset of the current position in the buffer
  uint64_t read_ = 0;    // offset of the buffer's end in the file
  bool at_end_ = false;  // a read returned nothing: do not read further, even if the file grows
};
