#include "run/work_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cfgmgr/messages.h"
#include "run/trace_log.h"
#include "run/work_access.h"

namespace {
constexpr size_t kBufferBytes = 256 * 1024;
}

int writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (written == 0) {
      errno = EIO;
      return -1;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

std::unique_ptr<WorkFile> WorkFile::open(const std::string &path, Mode mode) {
  int flags = O_WRONLY | O_CREAT | O_APPEND;
  if (mode == Mode::kTruncate) flags |= O_TRUNC;
  const int fd = openWorkFile(path, flags);
  if (fd < 0) return nullptr;
  return std::unique_ptr<WorkFile>(new WorkFile(fd, mode != Mode::kShared));
}

WorkFile::~WorkFile() {
  const int saved = errno;
  close();
  errno = saved;
}

int WorkFile::append(std::string_view record) {
  if (error_ != 0 || fd_ < 0) {
    errno = error_ ? error_ : EBADF;
    return -1;
  }
  if (!buffered_) {
    if (writeAll(fd_, record) == 0) return 0;
    error_ = errno;
    return -1;
  }
  if (buffer_.size() + record.size() > kBufferBytes && flush() != 0) return -1;
  buffer_.append(record);
  return 0;
}

int WorkFile::flush() {
  if (error_ == 0 && !buffer_.empty() && writeAll(fd_, buffer_) != 0) error_ = errno;
  buffer_.clear();
  if (error_ == 0) return 0;
  errno = error_;
  return -1;
}

int WorkFile::close() {
  if (fd_ < 0) return 0;
  flush();
  // After EINTR the descriptor is gone all the same.
  if (::close(fd_) != 0 && errno != EINTR && error_ == 0) error_ = errno;
  fd_ = -1;
  if (error_ == 0) return 0;
  errno = error_;
  return -1;
}

void closeWorkFile(std::unique_ptr<WorkFile> &stream, const std::string &name, int *rc) {
  if (!stream) return;
  const std::string label = name.empty() ? "NULL" : name;
  int failure = 0;
  if (stream->flush() != 0) {
    failure = errno;
    userMessage(Message::kFlushFailed, label, strerror(failure));
    traceLog("Error flushing work file %s: %s\n", label.c_str(), strerror(failure));
  } else if (stream->close() != 0) {
    failure = errno;
    userMessage(Message::kCloseFailed, label, strerror(failure));
    traceLog("Error closing work file %s: %s\n", label.c_str(), strerror(failure));
  }
  stream.reset();
  if (failure != 0 && *rc == 0) *rc = failure;
}

bool readWholeFile(const std::string &path, std::string *text) {
  text->clear();
  const int fd = openWorkFile(path, O_RDONLY);
  if (fd < 0) return false;
  char piece[65536];
  for (;;) {
    const ssize_t got = read(fd, piece, sizeof piece);
    if (got > 0) {
      text->append(piece, static_cast<size_t>(got));
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    const int failure = got < 0 ? errno : 0;
    ::close(fd);
    errno = failure ? failure : errno;
    return failure == 0;
  }
}
