// Reading a file of any size, a piece at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class FileReader {
 public:
  explicit FileReader(size_t piece = 128 * 1024) : piece_(piece) {}  // bytes a read
  ~FileReader();
  FileReader(const FileReader &) = delete;
  FileReader &operator=(const FileReader &) = delete;

  // Opens a file, or another one, at its start. False and errno.
  bool open(const std::string &path);
  void seek(uint64_t position);

  // What follows: `want` bytes at least, fewer only at the end of the file. Valid until the next call.
  // False and errno.
  bool peek(size_t want, std::string_view *text);
  // Moves on by bytes that peek showed.
  void skip(size_t bytes) { at_ += bytes; }
  uint64_t position() const { return read_ - buffer_.size() + at_; }

 private:
  void close();

  size_t piece_;
  int fd_ = -1;
  std::string buffer_;
  size_t at_ = 0;      // in the buffer
  uint64_t read_ = 0;  // position behind the buffer
};
