// Mounts the top level of a file system for this process and its children alone, so that every
// subvolume can be reached, whatever is mounted on this machine.
#pragma once

#include <string>

namespace front {

class TopMount {
 public:
  TopMount() = default;  // no mount
  // Moves this process into its own mount namespace and mounts the top level of the file system on the
  // block device `device`. File systems that are unmounted outside disappear here, too. Throws Trouble.
  TopMount(const std::string &device, bool read_only);
  ~TopMount();
  TopMount(TopMount &&other) noexcept : point_(std::move(other.point_)) { other.point_.clear(); }
  TopMount &operator=(TopMount &&other) noexcept {
    std::swap(point_, other.point_);
    return *this;
  }

  // Returns the mount point; "" if there is none.
  const std::string &point() const { return point_; }

 private:
  std::string point_;
};

}  // namespace front
