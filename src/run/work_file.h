// Files that lists are written to.
#pragma once

#include <memory>
#include <string>
#include <string_view>

// A list being written. Records are whole: a buffered file is flushed at record boundaries only, an
// unbuffered one takes each record in one write(2), so that several processes can append side by side.
class WorkFile {
 public:
  enum class Mode {
    kTruncate,  // buffered, starts empty; one writer
    kKeep,      // buffered, appends to what is there; one writer
    kShared,    // unbuffered, appends; several writers
  };
  // Null and errno when it cannot be opened.
  static std::unique_ptr<WorkFile> open(const std::string &path, Mode mode);
  ~WorkFile();
  WorkFile(const WorkFile &) = delete;
  WorkFile &operator=(const WorkFile &) = delete;

  // 0, or -1 and errno. After a failure every later call fails as well.
  int append(std::string_view record);
  int flush();
  int close();

 private:
  WorkFile(int fd, bool buffered) : fd_(fd), buffered_(buffered) {}
  int fd_;
  bool buffered_;
  int error_ = 0;
  std::string buffer_;
};

// Flushes and closes; `stream` is empty afterwards. A failure is printed on standard error and traced
// with `name` (empty: "NULL") and stored in *rc when that is still 0.
void closeWorkFile(std::unique_ptr<WorkFile> &stream, const std::string &name, int *rc);

// Whole contents of a file; false and errno.
bool readWholeFile(const std::string &path, std::string *text);

// Writes all of it, restarting after signals and short writes; 0 or -1 and errno.
int writeAll(int fd, std::string_view text);
