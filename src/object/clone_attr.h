// The clone attributes of a file.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

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

// 1 for a clone or clone parent, with its attribute in *attr; 0 otherwise, also on every error (traced).
// `snap` may be null. The path lies in the active fileset, the work directory or the snapshot.
int getCloneXattr(const std::string &path, CloneAttr *attr, CloneSnapAttr *snap);

// Reads the file-system attribute "kest.<name>" of an open descriptor: 1 present, 0 absent, -1 error
// (errno).
int getFileAttribute(int fd, const std::string &name, std::vector<uint8_t> *value);
