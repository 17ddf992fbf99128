#include "formats/list_record.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kPathMost = PATH_MAX - 1;  // 4095 bytes; PATH_MAX counts the terminator
constexpr size_t kTextMost = 4095;

// Parses a record from left to right. `problem` tells what is wrong, and where.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : text_(text) {}

  template <typename Number>
  bool number(Number *value, const char *what, int base = 10) {
    const char *first = text_.data() + at_;
    const auto [end, error] = std::from_chars(first, text_.data() + text_.size(), *value, base);
    if (error != std::errc()) return fail(what);
    at_ += static_cast<size_t>(end - first);
    return true;
  }

  bool skipBlanks() {
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    return true;
  }

  bool character(char c, const char *what) {
    if (at_ >= text_.size() || text_[at_] != c) return fail(what);
    ++at_;
    return true;
  }
  bool colon() { return character(':', "':' expected"); }

  // Parses <length>!<text>.
  bool counted(std::string_view *value, size_t shortest, size_t longest, const char *what) {
    const size_t start = at_;
    size_t length = 0;
    if (!number(&length, what) || !character('!', what)) return false;
    if (length < shortest || length > longest || length > text_.size() - at_) {
      at_ = start;
      return fail(what);
    }
    const std::string_view found = text_.substr(at_, length);
    if (const size_t nul = found.find('\0'); nul != std::string_view::npos) {
      at_ += nul;
      return fail(what);
    }
    *value = found;
    at_ += length;
    return true;
  }

  bool fail(const char *what) {
    what_ = what;
    return false;
  }

  std::string_view taken() const { return text_.substr(0, at_); }
  RecordProblem problem() const { return {what_, at_}; }

 private:
  const std::string_view text_;
  size_t at_ = 0;
  const char *what_ = "";
};

bool readFields(FieldReader &in, ListedRecord *record) {
  uint64_t unused = 0;
  std::string_view text;
  const char *const number = "number expected";
  if (!in.number(&record->aggregate, "aggregate number expected") || !in.colon() ||
      !in.number(&unused, number) || !in.colon() || !in.skipBlanks() ||
      !in.number(&record->ino, "inode number expected", 16) || !in.colon() ||
      !in.number(&record->generation, "generation expected") || !in.colon() ||
      !in.number(&record->snapshot, "snapshot id expected") || !in.colon() ||
      !in.number(&unused, number) || !in.colon() || !in.number(&unused, number) || !in.colon() ||
      !in.number(&unused, number) || !in.colon() ||
      !in.counted(&record->path, 1, kPathMost, "path is damaged") || !in.colon() ||
      !in.counted(&text, 0, kTextMost, "text is damaged") || !in.character(';', "';' expected") ||
      !in.counted(&record->opString, 1, kOpStringMax, "operation is damaged") ||
      !in.character('\n', "end of line expected"))
    return false;
  // A batch line carries the op string as one word.
  if (record->opString.find_first_of(" \t\n\r\v\f") != std::string_view::npos)
    return in.fail("operation is more than one word");
  record->whole = in.taken();
  return true;
}

}  // namespace

std::string formatListRecord(int64_t aggregate, uint64_t ino, std::string_view path,
                             const Operation &op) {
  const std::string op_string = formatOpString(op);
  char head[96], middle[32];
  snprintf(head, sizeof head, "%" PRId64 ":0:%11" PRIx64 ":0:0:0:0:0:%zu!", aggregate, ino,
           path.size());
  snprintf(middle, sizeof middle, ":0!;%zu!", op_string.size());
  std::string record(head);
  record.reserve(record.size() + path.size() + sizeof middle + op_string.size() + 1);
  record.append(path).append(middle).append(op_string).append(1, '\n');
  return record;
}

bool parseListRecord(std::string_view text, ListedRecord *record, RecordProblem *problem) {
  FieldReader in(text);
  ListedRecord parsed;
  if (readFields(in, &parsed)) {
    *record = parsed;
    return true;
  }
  if (problem != nullptr) *problem = in.problem();
  return false;
}

Result ListReader::open(UniqueFd file) {
  struct stat st;
  if (fstat(file.get(), &st) != 0) return errnoResult(errno);
  if (!S_ISREG(st.st_mode)) return errnoResult(S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
  size_ = static_cast<uint64_t>(st.st_size);
  reader_.open(std::move(file));
  return {};
}

// Returns the text at the current position, up to the end that the list had when it was opened.
Result ListReader::peek(size_t want, std::string_view *text) {
  const uint64_t left = size_ - std::min(size_, position());
  want = static_cast<size_t>(std::min<uint64_t>(want, left));
  const Result r = reader_.peek(want, text);
  *text = text->substr(0, static_cast<size_t>(std::min<uint64_t>(text->size(), left)));
  if (r && text->size() >= want) return r;
  problem_ = r ? "it became shorter," : strerror(r.err);
  problem_ += " at byte " + std::to_string(position() + text->size());
  return r ? errnoResult(EINVAL) : r;
}

Result ListReader::next(ListedRecord *record, bool *end) {
  std::string_view text;
  if (Result r = peek(kListRecordMax, &text); !r) return r;
  *end = text.empty();
  if (*end) return {};
  RecordProblem problem;
  if (!parseListRecord(text.substr(0, kListRecordMax), record, &problem)) {
    problem_ = problem.what + (" at byte " + std::to_string(position() + problem.at));
    return errnoResult(EINVAL);
  }
  reader_.skip(record->whole.size());
  return {};
}

std::string ListReader::textHere(size_t most) {
  std::string_view text;
  (void)peek(most, &text);
  return std::string(text.substr(0, most));
}
