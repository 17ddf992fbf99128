#include "run/file_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "run/work_access.h"

FileReader::~FileReader() {
  close();
}

void FileReader::close() {
  const int saved = errno;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  errno = saved;
}

bool FileReader::open(const std::string &path) {
  close();
  fd_ = openWorkFile(path, O_RDONLY);
  seek(0);
  return fd_ >= 0;
}

void FileReader::seek(uint64_t position) {
  buffer_.clear();
  at_ = 0;
  read_ = position;
}

bool FileReader::peek(size_t want, std::string_view *text) {
  bool at_end = false;
  while (!at_end && buffer_.size() - at_ < want) {
    buffer_.erase(0, at_);
    at_ = 0;
    const size_t have = buffer_.size();
    buffer_.resize(std::max(want, piece_));
    const ssize_t got =
        pread(fd_, buffer_.data() + have, buffer_.size() - have, static_cast<off_t>(read_));
    buffer_.resize(have + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && errno != EINTR) return false;
    if (got > 0) read_ += static_cast<uint64_t>(got);
    at_end = got == 0;
  }
  *text = std::string_view(buffer_).substr(at_);
  return true;
}
