// The clone attributes of an open inode.
#pragma once

#include <array>
#include <cstdint>

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

// True for a clone or clone parent, with its attributes (either may be null). False for every other
// type, and where they cannot be read: that is traced and recorded as a fatal error, so the run ends
// with 1.
bool isClone(kest_ifile_t *file, CloneAttr *attr, CloneSnapAttr *snap);

// Whether both open inodes are the same kind of file to the clone system: neither clone nor parent,
// or both of one depth and both parents or both not. Nothing but making it anew turns one into the
// other. 1 or 0; -1 and errno where either cannot be read, recorded as isClone does.
int sameCloneKind(kest_ifile_t *one, kest_ifile_t *other);
