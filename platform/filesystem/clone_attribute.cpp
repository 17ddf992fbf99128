#include "filesystem/clone_attribute.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <endian.h>

namespace kest {
namespace {

// Reads the first bytes of an attribute. 1; 0: absent or too short; or -errno.
template <size_t N>
int readFirst(Inode &inode, const char *name, std::array<uint8_t, N> *bytes) {
  std::string value;
  int rc = inode.readXattr(name, &value);
  if (rc == -ENODATA || rc == -EOPNOTSUPP) return 0;
  if (rc != 0) return rc;
  if (value.size() < N) return 0;
  memcpy(bytes->data(), value.data(), N);
  return 1;
}

template <size_t N>
int writeAll(Inode &inode, const char *name, const std::array<uint8_t, N> &bytes) {
  return inode.writeXattr(name, std::string(bytes.begin(), bytes.end()));
}

}  // namespace

uint64_t CloneAttribute::parent() const {
  uint64_t big;
  memcpy(&big, clone.data(), sizeof big);
  return be64toh(big);
}

void CloneAttribute::setParent(uint64_t ino) {
  uint64_t big = htobe64(ino);
  memcpy(clone.data(), &big, sizeof big);
}

void CloneAttribute::setSnapshot(uint32_t id) {
  uint32_t big = htobe32(id);
  memcpy(clone_snap.data() + 4, &big, sizeof big);
  clone[12] |= 0x40;
}

uint32_t CloneAttribute::snapshot() const {
  uint32_t big;
  memcpy(&big, clone_snap.data() + 4, sizeof big);
  return be32toh(big);
}

void CloneAttribute::setDepth(unsigned depth) {
  clone[14] = static_cast<uint8_t>(depth >> 8);
  clone[15] = static_cast<uint8_t>(depth);
}

int readCloneAttribute(Inode &inode, CloneAttribute *attribute) {
  *attribute = {};
  int rc = readFirst(inode, kCloneAttribute, &attribute->clone);
  if (rc <= 0 || !attribute->namesSnapshot()) return rc;
  return readFirst(inode, kCloneSnapAttribute, &attribute->clone_snap);
}

int writeCloneAttribute(Inode &inode, const CloneAttribute &attribute) {
  // The process can die between both writes, so the flag that announces the second attribute is written
  // last.
  if (attribute.namesSnapshot()) {
    if (int rc = writeAll(inode, kCloneSnapAttribute, attribute.clone_snap); rc != 0) return rc;
  }
  return writeAll(inode, kCloneAttribute, attribute.clone);
}

}  // namespace kest
