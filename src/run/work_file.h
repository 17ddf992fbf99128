// Files that lists are written to.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"
#include "formats/list_record.h"

// A list that is being written. Readers never see part of a record: a buffered file is flushed only
// between records, and an unbuffered one writes each record with one write(2) in append mode, so that
// several processes can append at the same time. After a failure every later call fails with the same
// errno, which is the rc.
class WorkFile {
 public:
  enum class Mode {
    kTruncate,  // buffered, starts empty; one writer
    kKeep,      // buffered, appends to existing content; one writer
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

// Flushes, closes and resets `stream`; does nothing if it is empty. Prints and traces a failure with
// `name` ("NULL" if that is empty); its rc is the errno.
Result closeWorkFile(std::unique_ptr<WorkFile> &stream, const std::string &name);

// For two steps that must both be taken: returns the first failure.
inline Result firstFailure(Result first, Result second) {
  return first ? second : first;
}

// Reads a whole file. rc of a failure is the errno.
Result readWholeFile(const std::string &path, std::string *text);

// Opens a list of the work directory for reading. rc of a failure is the errno.
Result openList(const std::string &path, ListReader *list);
