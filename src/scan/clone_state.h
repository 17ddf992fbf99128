// The clone attributes of an open inode.
#pragma once

#include <array>
#include <cstdint>

#include "base/result.h"
#include "kest.h"

constexpr uint8_t kCloneParent = 0x80;    // flag byte: the file is a clone parent
constexpr uint8_t kCloneSnapFlag = 0x40;  // flag byte: the parent lives in a snapshot

// "CLONE": bytes 0-7 parent inode number, 12 flags, 14-15 depth (big-endian).
struct CloneAttr {
  std::array<uint8_t, 16> bytes{};
  uint64_t parentIno() const;
  bool isParent() const { return bytes[12] & kCloneParent; }
  bool parentInSnapshot() const { return bytes[12] & kCloneSnapFlag; }
  uint16_t depth() const;
};

// "CLONESNAP": bytes 4-7 snapshot id (big-endian).
struct CloneSnapAttr {
  std::array<uint8_t, 8> bytes{};
  uint32_t snapId() const;
};

// Whether the inode is a clone or clone parent, with its attributes (either may be null). Never for
// other types than regular files. Attributes that cannot be read are traced and recorded as a fatal
// error, so that the run ends with 1; rc of the failure is -1.
Result isClone(kest_ifile_t *file, bool *clone, CloneAttr *attr = nullptr,
               CloneSnapAttr *snap = nullptr);

// Whether both open inodes are the same kind of file to the clone system: neither clone nor parent,
// or both of one depth and both parents or both not. Only making a file anew turns one kind into the
// other. Failures are recorded as isClone does.
Result sameCloneKind(kest_ifile_t *one, kest_ifile_t *other, bool *same);
