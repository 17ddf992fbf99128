// The attributes that make a file a clone or clone parent. kest.h describes their bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "filesystem/file_system.h"

namespace kest {

inline constexpr char kCloneAttribute[] = "trusted.kest.CLONE";
inline constexpr char kCloneSnapAttribute[] = "trusted.kest.CLONESNAP";
inline bool isCloneAttribute(std::string_view name) {
  return name == kCloneAttribute || name == kCloneSnapAttribute;
}

struct CloneAttribute {
  std::array<uint8_t, 16> clone{};
  std::array<uint8_t, 8> clone_snap{};  // all 0 unless the parent is in a snapshot

  uint64_t parent() const;
  void setParent(uint64_t ino);
  bool isParent() const { return (clone[12] & 0x80) != 0; }
  void setIsParent() { clone[12] |= 0x80; }
  bool namesSnapshot() const { return (clone[12] & 0x40) != 0; }
  void setSnapshot(uint32_t id);
  uint32_t snapshot() const;
  // 0 if the file is no clone.
  unsigned depth() const { return clone[14] << 8 | clone[15]; }
  void setDepth(unsigned depth);
};

// Reads the attributes. 1; 0: there are none, or they are too short; or -errno.
int readCloneAttribute(Inode &inode, CloneAttribute *attribute);
int writeCloneAttribute(Inode &inode, const CloneAttribute &attribute);  // 0 or -errno

}  // namespace kest
