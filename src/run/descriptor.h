// A descriptor that closes itself.
#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <string>
#include <utility>

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() {
    const int saved = errno;
    if (fd_ >= 0) close(fd_);
    errno = saved;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// The way to the object behind a descriptor, O_PATH ones included, for calls that take paths only.
inline std::string descriptorPath(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

// Opens that object anew, close-on-exec. -1 and errno.
inline int reopen(int fd, int flags) {
  return open(descriptorPath(fd).c_str(), flags | O_CLOEXEC);
}
