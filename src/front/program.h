// Starting other programs, by their arguments and without a shell, and reading what they print.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace front {

// Where the restore and its commands are installed.
inline constexpr char kProgramDir[] = "/usr/qtx/kest/bin/";

// A program that runs while this process does something else. It is killed when this process dies.
class Program {
 public:
  enum class Capture { kOutput, kBoth };  // standard output, or standard error with it

  // `arguments`: the first is the path of the program. `environment` is set in addition ("LC_ALL=C").
  // What is not captured stays the caller's. Throws Trouble where it cannot be started.
  Program(const std::vector<std::string> &arguments, Capture capture,
          const std::vector<std::string> &environment = {});
  ~Program();  // waits for its end
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  pid_t pid() const { return pid_; }
  // The next piece of what it prints; "" and *ended at the end. Waits at most `milliseconds` (-1: as
  // long as it takes) and returns "" where nothing came, or where a signal arrived.
  std::string read(int milliseconds, bool *ended);
  // Waits. Its exit status, or 128 + the signal that ended it.
  int wait();

 private:
  UniqueFd output_;
  pid_t pid_ = 0;
  int status_ = -1;
};

// All of standard output; what it says on standard error stays visible. Returns the exit status.
int runForOutput(const std::vector<std::string> &arguments, std::string *output,
                 const std::vector<std::string> &environment = {});

// Calls `line` for each line of standard output, without its newline. Returns the exit status.
int runForLines(const std::vector<std::string> &arguments,
                const std::function<void(std::string_view)> &line);

}  // namespace front
