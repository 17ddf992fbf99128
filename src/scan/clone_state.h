// Reads the clone attributes of an open inode.
#pragma once

#include <array>
#include <cstdint>

#include "base/result.h"
#include "kest.h"

constexpr uint8_t kCloneParent = 0x80;    // flag byte: the file is a clone parent
constexpr uint8_t kCloneSnapFlag = 0x40;  // flag byte: the parent lives in a snapshot

// Attribute "CLONE", big-endian: bytes 0-7 are the parent's inode number, byte 12 the flags, bytes
// 14-15 the depth.
struct CloneAttr {
  std::array<uint8_t, 16> bytes{};
  uint64_t parentIno() const;
  bool isParent() const { return bytes[12] & kCloneParent; }
  bool parentInSnapshot() const { return bytes[12] & kCloneSnapFlag; }
  uint16_t depth() const;
};

// Attribute "CLONESNAP", big-endian: bytes 4-7 are the snapshot id.
struct CloneSnapAttr {
  std::array<uint8_t, 8> bytes{};
  uint32_t snapId() const;
};

// Sets *clone if the inode is a clone or clone parent, and reads its attributes; either may be null.
// Only regular files can be one. If the attributes cannot be read, traces and prints it; rc is -1.
// Callers must pass that on: a clone that counted as an ordinary file would come back as one, and the
// run would report success.
Result isClone(kest_ifile_t *file, bool *clone, CloneAttr *attr = nullptr,
               CloneSnapAttr *snap = nullptr);

// Sets *same if both inodes are of one kind: both no clone, or both clones of one depth and both or
// neither a parent. Only making the file again can change its kind. Failures as in isClone.
Result sameCloneKind(kest_ifile_t *one, kest_ifile_t *other, bool *same);
