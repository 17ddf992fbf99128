// The top level of a file system, mounted for this process and its children alone, so that every
// subvolume can be reached whatever is mounted on this machine.
#pragma once

#include <string>

namespace front {

class TopMount {
 public:
  TopMount() = default;  // none
  // Takes this process into a mount namespace of its own and mounts the top level of the file system on
  // `device`, a block device. What is unmounted outside meanwhile goes here as well. Throws Trouble.
  TopMount(const std::string &device, bool read_only);
  ~TopMount();
  TopMount(TopMount &&other) noexcept : point_(std::move(other.point_)) { other.point_.clear(); }
  TopMount &operator=(TopMount &&other) noexcept {
    std::swap(point_, other.point_);
    return *this;
  }

  // Where it is mounted; "" where there is none.
  const std::string &point() const { return point_; }

 private:
  std::string point_;
};

}  // namespace front
