// Reading and writing through descriptors: whole, whatever signals and short transfers do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

// Writes all of `text`; rc of a failure is the errno.
Result writeAll(int fd, std::string_view text);

// Reads from the current position to the end, into an emptied `text`; rc of a failure is the errno.
// `most`: bytes to read at most.
Result readToEnd(int fd, std::string *text, size_t most = SIZE_MAX);

// Reads a file of any size, a piece at a time.
class FileReader {
 public:
  explicit FileReader(size_t piece = 128 * 1024) : piece_(piece) {}  // bytes of one read

  // Reads from the start of `file` from now on.
  void open(UniqueFd file);
  void seek(uint64_t position);

  // The bytes at the current position: `want` at least, fewer only at the end of the file. `text` is
  // valid until the next call. rc of a failure is the errno; `text` holds the bytes before it.
  Result peek(size_t want, std::string_view *text);
  // Moves on by bytes that peek showed.
  void skip(size_t bytes) { at_ += bytes; }
  uint64_t position() const { return read_ - buffer_.size() + at_; }
  int descriptor() const { return fd_.get(); }

 private:
  const size_t piece_;
  UniqueFd fd_;
  std::string buffer_;
  size_t at_ = 0;        // of the current position in the buffer
  uint64_t read_ = 0;    // position in the file of the buffer's end
  bool at_end_ = false;  // a read found nothing more: the file is read as far as it went then
};
