// descriptor.h: a file descriptor that closes itself. The tests have their own, so that they share no
// code with the programs under test.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace testsupport {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    int saved = errno;
    if (fd_ >= 0) close(fd_);
    errno = saved;
  }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Throws std::system_error with errno, for example "chmod a/b: Operation not permitted".
[[noreturn]] inline void failWithErrno(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Returns a path to the object of any descriptor, O_PATH included.
inline std::string procPath(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

// Returns the names in a directory, sorted and without . and ..; `path` is for messages.
std::vector<std::string> listNames(int dirFd, const std::string &path);

}  // namespace testsupport
