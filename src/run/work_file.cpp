#include "run/work_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "messages/messages.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {
constexpr size_t kBufferBytes = 256 * 1024;
}

WorkFile::WorkFile(UniqueFd fd, bool buffered) : fd_(std::move(fd)), buffered_(buffered) {}

Result WorkFile::open(const std::string &path, Mode mode, std::unique_ptr<WorkFile> *file) {
  int flags = O_WRONLY | O_CREAT | O_APPEND;
  if (mode == Mode::kTruncate) flags |= O_TRUNC;
  UniqueFd fd;
  if (Result r = openWorkFile(path, flags, &fd); !r) return r;
  file->reset(new WorkFile(std::move(fd), mode != Mode::kShared));
  return {};
}

WorkFile::~WorkFile() {
  const int saved = errno;
  (void)close();  // callers that need the result have called close()
  errno = saved;
}

Result WorkFile::append(std::string_view text) {
  if (error_ != 0 || !fd_) return errnoResult(error_ != 0 ? error_ : EBADF);
  if (!buffered_) {
    const Result r = writeAll(fd_.get(), text);
    error_ = r.err;
    return r;
  }
  // Flush before the record, never in the middle of one.
  if (buffer_.size() + text.size() > kBufferBytes) {
    if (Result r = flush(); !r) return r;
  }
  buffer_.append(text);
  return {};
}

Result WorkFile::flush() {
  if (error_ == 0 && !buffer_.empty()) error_ = writeAll(fd_.get(), buffer_).err;
  buffer_.clear();
  return errnoResult(error_);
}

Result WorkFile::close() {
  if (!fd_) return {};
  (void)flush();  // error_ keeps a failure
  // Linux closes the descriptor even if close() fails with EINTR.
  if (::close(fd_.release()) != 0 && errno != EINTR && error_ == 0) error_ = errno;
  return errnoResult(error_);
}

Result closeWorkFile(std::unique_ptr<WorkFile> &stream, const std::string &name) {
  if (!stream) return {};
  const std::string label = name.empty() ? "NULL" : name;
  Result r = stream->flush();
  if (!r) {
    userMessage(Message::kFlushFailed, label, strerror(r.err));
    traceLog("Error flushing work file %s: %s\n", label.c_str(), strerror(r.err));
  } else if (r = stream->close(); !r) {
    userMessage(Message::kCloseFailed, label, strerror(r.err));
    traceLog("Error closing work file %s: %s\n", label.c_str(), strerror(r.err));
  }
  stream.reset();
  return r;
}

Result readWholeFile(const std::string &path, std::string *text) {
  UniqueFd fd;
  text->clear();
  if (Result r = openWorkFile(path, O_RDONLY, &fd); !r) return r;
  return readToEnd(fd.get(), text);
}

Result openList(const std::string &path, ListReader *list) {
  UniqueFd fd;
  if (Result r = openWorkFile(path, O_RDONLY, &fd); !r) return r;
  return list->open(std::move(fd));
}
