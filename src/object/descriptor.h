// A descriptor that closes itself.
#pragma once

#include <unistd.h>
#include <cerrno>
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

 private:
  int fd_;
};
