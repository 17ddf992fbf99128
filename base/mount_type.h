// The types of file systems in the mount table.
#pragma once

#include <string_view>

// Whether a mount of this type shows a CephFS: by the kernel's client, or by a FUSE client.
inline bool isCephFsType(std::string_view type) {
  return type == "ceph" || type.starts_with("fuse.ceph");
}
