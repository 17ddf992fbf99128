// Access control lists and mode bits in one buffer; kest.h describes its head.
#pragma once

#include <string>

#include <sys/types.h>

namespace kest {

struct AclState {
  mode_t mode = 0;        // all twelve bits
  std::string access;     // raw access ACL; "" if there is only the mode
  std::string inherited;  // raw default ACL of a directory; "" if there is none
};

// Convert between the state and the buffer of kest_getacl. decodeAcl reads as many bytes as the head of
// `buf` says and returns false if `buf` is malformed.
std::string encodeAcl(const AclState &state);
bool decodeAcl(const void *buf, AclState *state);

}  // namespace kest
