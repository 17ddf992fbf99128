// Starts other programs by their arguments, without a shell, and reads their output.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace front {

// A program that runs beside this process. It is killed when this process dies.
class Program {
 public:
  enum class Capture { kOutput, kBoth };  // standard output alone, or with standard error

  // The first argument is the path of the program. `environment` adds variables such as "LC_ALL=C".
  // Output that is not captured goes where the caller's goes. Throws Trouble if the program cannot be
  // started.
  Program(const std::vector<std::string> &arguments, Capture capture,
          const std::vector<std::string> &environment = {});
  ~Program();  // waits for the program to end
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  pid_t pid() const { return pid_; }
  // Returns the next piece of output; "" with *ended set after the last. Waits at most `milliseconds`
  // (-1: without limit) and returns "" if there was no output or a signal arrived.
  std::string read(int milliseconds, bool *ended);
  // Waits for the program to end. Returns its exit status, or 128 + the signal that killed it.
  int wait();

 private:
  UniqueFd output_;
  pid_t pid_ = 0;
  int status_ = -1;
};

// Reads all of standard output. Standard error stays the caller's. Returns the exit status.
int runForOutput(const std::vector<std::string> &arguments, std::string *output,
                 const std::vector<std::string> &environment = {});

// Calls `line` for each line of standard output, without the newline. Returns the exit status.
int runForLines(const std::vector<std::string> &arguments,
                const std::function<void(std::string_view)> &line);

}  // namespace front
