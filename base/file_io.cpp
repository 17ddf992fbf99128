#include "base/file_io.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

constexpr size_t kReadBytes = 64 * 1024;

}  // namespace

Result writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errnoResult(errno);
    if (written == 0) return errnoResult(EIO);
    text.remove_prefix(static_cast<size_t>(written));
  }
  return {};
}

Result readToEnd(int fd, std::string *text, size_t most) {
  text->clear();
  char piece[kReadBytes];
  while (text->size() < most) {
    const ssize_t got = read(fd, piece, std::min(sizeof piece, most - text->size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errnoResult(errno);
    if (got == 0) break;
    text->append(piece, static_cast<size_t>(got));
  }
  return {};
}

void FileReader::open(UniqueFd file) {
  fd_ = std::move(file);
  seek(0);
}

void FileReader::seek(uint64_t position) {
  buffer_.clear();
  at_ = 0;
  read_ = position;
  at_end_ = false;
}

Result FileReader::peek(size_t want, std::string_view *text) {
  int failure = 0;
  while (!at_end_ && failure == 0 && buffer_.size() - at_ < want) {
    buffer_.erase(0, at_);
    at_ = 0;
    const size_t have = buffer_.size();
    buffer_.resize(std::max(want, piece_));
    const ssize_t got =
        pread(fd_.get(), buffer_.data() + have, buffer_.size() - have, static_cast<off_t>(read_));
    if (got < 0 && errno != EINTR) failure = errno;
    at_end_ = got == 0;
    const auto bytes = static_cast<size_t>(std::max<ssize_t>(got, 0));
    buffer_.resize(have + bytes);
    read_ += bytes;
  }
  *text = std::string_view(buffer_).substr(at_);
  return errnoResult(failure);
}
