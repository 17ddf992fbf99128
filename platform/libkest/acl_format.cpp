#include "libkest/acl_format.h"

#include <cstdint>
#include <cstring>

namespace kest {
namespace {

constexpr uint32_t kMagic = 0x4c43414b;
constexpr mode_t kModeBits = 07777;

struct Header {
  int32_t length;  // in: size of the buffer; out: length of the contents
  uint16_t version;
  uint8_t type;
  uint8_t pad;
  uint32_t magic;
  uint32_t mode;
  uint32_t access_length;  // 0: no ACL besides the mode bits
  uint32_t default_length;
};
static_assert(sizeof(Header) == 24);

}  // namespace

std::string encodeAcl(const AclState &state) {
  Header header{};
  header.type = 1;
  header.magic = kMagic;
  header.mode = state.mode;
  header.access_length = static_cast<uint32_t>(state.access.size());
  header.default_length = static_cast<uint32_t>(state.inherited.size());
  header.length = static_cast<int32_t>(sizeof header + state.access.size() + state.inherited.size());
  std::string text(sizeof header, '\0');
  memcpy(text.data(), &header, sizeof header);
  return text + state.access + state.inherited;
}

bool decodeAcl(const void *buf, AclState *state) {
  Header header;
  memcpy(&header.length, buf, sizeof header.length);
  if (header.length < static_cast<int32_t>(sizeof header)) return false;
  memcpy(&header, buf, sizeof header);
  uint64_t room = static_cast<uint64_t>(header.length) - sizeof header;
  if (header.magic != kMagic || (header.mode & ~kModeBits) != 0 ||
      uint64_t{header.access_length} + header.default_length > room)
    return false;
  const char *at = static_cast<const char *>(buf) + sizeof header;
  state->mode = header.mode;
  state->access.assign(at, header.access_length);
  state->inherited.assign(at + header.access_length, header.default_length);
  return true;
}

}  // namespace kest
