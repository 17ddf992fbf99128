// Access control lists and mode bits, read and set as one.
#pragma once

#include <string>

#include <sys/types.h>

namespace kest {

struct AclState {
  mode_t mode = 0;        // all twelve bits
  std::string access;     // raw access ACL; "" none beyond the mode
  std::string inherited;  // raw default ACL of a directory; "" none
};

// State of the object behind any descriptor (a link has its mode only). 0 or -errno.
int readAcl(int fd, AclState *state);

// Brings the object into that state and writes nothing where it is already; a link is left alone. The
// default ACL is for directories only. 0; -EPERM immutable or append-only; -errno.
int writeAcl(int fd, const AclState &state);

// The state as kest_getacl gives it. decodeAcl reads as many bytes as `buf` says it is long; false for
// what is none.
std::string encodeAcl(const AclState &state);
bool decodeAcl(const void *buf, AclState *state);

}  // namespace kest
