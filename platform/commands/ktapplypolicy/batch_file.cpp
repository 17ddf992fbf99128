#include "commands/ktapplypolicy/batch_file.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <utility>

#include "btrfs/unique_fd.h"

namespace kest {
namespace {

// A file left by a killed engine of the same process id; several are one too many.
constexpr int kNameTries = 1000;

int writeAll(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return -errno;
    done += static_cast<size_t>(put);
  }
  return 0;
}

}  // namespace

std::string formatBatchLine(const ListRecord &record) {
  std::string line = std::to_string(record.inode) + " " + std::to_string(record.generation) + " " +
                     std::to_string(record.snapshot) + "  " + record.operation + " -- ";
  for (char c : record.path) {
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\t') {
      line += "\\t";
    } else {
      if (c == '\\') line += '\\';
      line += c;
    }
  }
  line += '\n';
  return line;
}

BatchFile::BatchFile(BatchFile &&other) noexcept
    : path_(std::exchange(other.path_, {})), directory_(other.directory_) {}

BatchFile &BatchFile::operator=(BatchFile &&other) noexcept {
  std::swap(path_, other.path_);
  std::swap(directory_, other.directory_);
  return *this;
}

BatchFile::~BatchFile() {
  if (path_.empty()) return;
  int saved = errno;
  directory_->remove(path_);
  errno = saved;
}

int BatchFile::create(const RunDirectory &directory, uint64_t number, const Batch &batch) {
  std::string base =
      directory.path() + "/ktapplypolicy." + std::to_string(getpid()) + "." + std::to_string(number);
  int opened = -EEXIST;
  std::string name = base;
  for (int attempt = 1; attempt <= kNameTries; attempt++) {
    opened = directory.openFile(name, O_WRONLY | O_CREAT | O_EXCL);
    if (opened != -EEXIST) break;
    name = base + "." + std::to_string(attempt);
  }
  if (opened < 0) return opened;
  UniqueFd fd(opened);
  path_ = name;
  directory_ = &directory;
  std::string text;
  for (const ListRecord &record : batch) text += formatBatchLine(record);
  int rc = writeAll(fd.get(), text);
  // Some file systems report a full disk only here.
  if (rc == 0 && close(fd.release()) < 0) rc = -errno;
  if (rc < 0) BatchFile(std::move(*this));
  return rc;
}

}  // namespace kest
