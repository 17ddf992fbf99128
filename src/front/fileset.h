// The fileset that a path lies in.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "front/top_mount.h"

namespace front {

using Uuid = std::array<uint8_t, 16>;

struct Fileset {
  uint64_t id = 0;
  std::string path;  // below the top of the file system; "" the top-level subvolume
  Uuid uuid{};
  dev_t device_number = 0;          // st_dev of everything in it
  UniqueFd root;                    // its root directory
  std::string root_path;            // where that is visible to this process and its children
  std::string device;               // a path on the file system, as the commands' Device
  std::vector<std::string> mounts;  // where mounts show it, or a part of it, to everybody
  std::string named;                // how the user names it: arguments for the next fset, shell words
  TopMount top;

  // The path as the commands take it: "/" for the top-level subvolume.
  std::string name() const { return path.empty() ? "/" : path; }
};

// What the user said about it.
struct Place {
  std::string path;     // any path in it, or a block device; "" the current directory
  std::string fileset;  // its path below the top, where `path` only names the file system; "" none
};

// Finds it and mounts the top level of its file system privately. `to_change`: that mount can be
// written to, unless the user mounted the file system read-only. Where the top level cannot be
// mounted, a fileset that is mounted will do, and `top` is empty. Throws Trouble.
Fileset findFileset(const Place &place, bool to_change);

}  // namespace front
