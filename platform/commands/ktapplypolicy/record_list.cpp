#include "commands/ktapplypolicy/record_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace kest {
namespace {

constexpr size_t kMaxPath = 4095;
constexpr size_t kMaxOperation = 127;
constexpr size_t kMaxText = 4095;
// No record is longer than this: three texts and a dozen numbers.
constexpr size_t kMaxRecord = 16384;
constexpr size_t kBufferBytes = 1 << 20;

class FieldReader {
 public:
  explicit FieldReader(std::string_view data) : data_(data) {}

  template <typename Number>
  bool number(Number *value, int base, const char *what) {
    const char *first = data_.data() + at_;
    auto [end, error] = std::from_chars(first, data_.data() + data_.size(), *value, base);
    if (error != std::errc()) return fail(what);
    at_ += static_cast<size_t>(end - first);
    return true;
  }

  bool skipBlanks() {
    while (at_ < data_.size() && data_[at_] == ' ') at_++;
    return true;
  }

  bool character(char c, const char *what) {
    if (at_ >= data_.size() || data_[at_] != c) return fail(what);
    at_++;
    return true;
  }

  // <length>!<text>
  bool text(std::string *value, size_t shortest, size_t longest, const char *what) {
    size_t start = at_;
    size_t length = 0;
    if (!number(&length, 10, what) || !character('!', what)) return false;
    if (length < shortest || length > longest || length > data_.size() - at_) {
      at_ = start;
      return fail(what);
    }
    std::string_view found = data_.substr(at_, length);
    size_t nul = found.find('\0');
    if (nul != std::string_view::npos) {
      at_ += nul;
      return fail(what);
    }
    value->assign(found);
    at_ += length;
    return true;
  }

  bool fail(const char *what) {
    what_ = what;
    return false;
  }

  size_t at() const { return at_; }
  const char *what() const { return what_; }

 private:
  std::string_view data_;
  size_t at_ = 0;
  const char *what_ = "";
};

bool readFields(FieldReader &in, ListRecord *record) {
  uint64_t unused;
  std::string text;
  const char *colon = "':' expected";
  return in.number(&record->aggregate, 10, "aggregate number expected") && in.character(':', colon) &&
         in.number(&unused, 10, "number expected") && in.character(':', colon) && in.skipBlanks() &&
         in.number(&record->inode, 16, "inode number expected") && in.character(':', colon) &&
         in.number(&record->generation, 10, "generation expected") && in.character(':', colon) &&
         in.number(&record->snapshot, 10, "snapshot id expected") && in.character(':', colon) &&
         in.number(&unused, 10, "number expected") && in.character(':', colon) &&
         in.number(&unused, 10, "number expected") && in.character(':', colon) &&
         in.number(&unused, 10, "number expected") && in.character(':', colon) &&
         in.text(&record->path, 1, kMaxPath, "path is damaged") && in.character(':', colon) &&
         in.text(&text, 0, kMaxText, "text is damaged") && in.character(';', "';' expected") &&
         in.text(&record->operation, 1, kMaxOperation, "operation is damaged") &&
         in.character('\n', "end of line expected");
}

}  // namespace

bool ListRecord::isLargeRange() const {
  const char *at = operation.data();
  const char *end = at + operation.size();
  int code = 0;
  int64_t offset = 0;
  uint64_t length = 0;
  auto step = std::from_chars(at, end, code);
  if (step.ec != std::errc() || step.ptr == end || *step.ptr != ',') return false;
  step = std::from_chars(step.ptr + 1, end, offset);
  if (step.ec != std::errc() || step.ptr == end || *step.ptr != ',') return false;
  step = std::from_chars(step.ptr + 1, end, length);
  return step.ec == std::errc() && (code == 1 || code == 2) && length >= kLargeRange;
}

size_t parseListRecord(std::string_view data, ListRecord *record, std::string *problem,
                       size_t *problem_at) {
  FieldReader in(data);
  bool good = readFields(in, record);
  // The operation travels as one word of a line.
  if (good && record->operation.find_first_of(" \t\n\r\v\f") != std::string::npos) {
    good = in.fail("operation is more than one word");
  }
  if (good) return in.at();
  *problem = in.what();
  *problem_at = in.at();
  return 0;
}

int RecordList::open(const std::string &path, const RunDirectory &directory) {
  const int fd = directory.openFile(path, O_RDONLY);
  if (fd < 0) return fd;
  fd_.reset(fd);
  struct stat st;
  if (fstat(fd_.get(), &st) < 0) return -errno;
  if (!S_ISREG(st.st_mode)) return S_ISDIR(st.st_mode) ? -EISDIR : -EINVAL;
  size_ = static_cast<uint64_t>(st.st_size);
  rewind();
  return 0;
}

void RecordList::rewind() {
  loaded_ = 0;
  at_ = 0;
  buffer_.clear();
}

int RecordList::fill() {
  buffer_.erase(0, at_);
  at_ = 0;
  while (buffer_.size() < kBufferBytes && loaded_ < size_) {
    size_t have = buffer_.size();
    size_t want = static_cast<size_t>(std::min<uint64_t>(kBufferBytes - have, size_ - loaded_));
    buffer_.resize(have + want);
    ssize_t got = pread(fd_.get(), buffer_.data() + have, want, static_cast<off_t>(loaded_));
    int error = errno;
    buffer_.resize(have + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && error == EINTR) continue;
    if (got < 0) {
      problem_ = std::string(strerror(error)) + " at byte " + std::to_string(loaded_);
      return -1;
    }
    if (got == 0) {
      problem_ = "it became shorter, at byte " + std::to_string(loaded_);
      return -1;
    }
    loaded_ += static_cast<uint64_t>(got);
  }
  return 0;
}

int RecordList::next(ListRecord *record) {
  if (buffer_.size() - at_ < kMaxRecord && loaded_ < size_ && fill() < 0) return -1;
  if (at_ == buffer_.size()) return 0;
  size_t problem_at = 0;
  size_t used = parseListRecord(std::string_view(buffer_).substr(at_), record, &problem_, &problem_at);
  if (used == 0) {
    uint64_t byte = loaded_ - buffer_.size() + at_ + problem_at;
    problem_ += " at byte " + std::to_string(byte);
    return -1;
  }
  at_ += used;
  return 1;
}

}  // namespace kest
