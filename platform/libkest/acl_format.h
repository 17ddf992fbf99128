// Access control lists and mode bits as one buffer; kest.h says how it begins.
#pragma once

#include <string>

#include <sys/types.h>

namespace kest {

struct AclState {
  mode_t mode = 0;        // all twelve bits
  std::string access;     // raw access ACL; "" none beyond the mode
  std::string inherited;  // raw default ACL of a directory; "" none
};

// The state as kest_getacl gives it. decodeAcl reads as many bytes as `buf` says it is long; false for
// what is none.
std::string encodeAcl(const AclState &state);
bool decodeAcl(const void *buf, AclState *state);

}  // namespace kest
