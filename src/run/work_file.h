// Files that lists are written to.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"
#include "formats/list_record.h"

// A list being written. Records are whole: a buffered file is flushed at record boundaries only, an
// unbuffered one takes each record in one write(2), so that several processes can append side by side.
// After a failure every later call fails as well, with the same errno. rc of a failure is the errno.
class WorkFile {
 public:
  enum class Mode {
    kTruncate,  // buffered, starts empty; one writer
    kKeep,      // buffered, appends to what is there; one writer
    kShared,    // unbuffered, appends; several writers
  };
  static Result open(const std::string &path, Mode mode, std::unique_ptr<WorkFile> *file);
  ~WorkFile();
  WorkFile(const WorkFile &) = delete;
  WorkFile &operator=(const WorkFile &) = delete;

  Result append(std::string_view text);
  Result appendRecord(int64_t aggregate, uint64_t ino, std::string_view path, const Operation &op) {
    return append(formatListRecord(aggregate, ino, path, op));
  }
  Result flush();
  Result close();

 private:
  WorkFile(UniqueFd fd, bool buffered);
  UniqueFd fd_;
  bool buffered_;
  int error_ = 0;
  std::string buffer_;
};

// Flushes and closes; `stream` is empty afterwards. A failure, whose rc is the errno, is printed on
// standard error and traced with `name` (empty: "NULL"). Nothing to do for an empty `stream`.
Result closeWorkFile(std::unique_ptr<WorkFile> &stream, const std::string &name);

// The first failure of two steps that both must be taken.
inline Result firstFailure(Result first, Result second) {
  return first ? second : first;
}

// Whole contents of a file. rc of a failure is the errno.
Result readWholeFile(const std::string &path, std::string *text);

// Opens a list of the work directory for reading. rc of a failure is the errno.
Result openList(const std::string &path, ListReader *list);
