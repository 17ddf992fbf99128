#include "object/control_request.h"

#include <cstdint>

#include "kest.h"

namespace {

enum Directive : int32_t {
  kSetImmutable = 5000,
  kGetImmutable = 5001,
  kSetAppendOnly = 5004,
  kGetAppendOnly = 5005,
};

struct Entry {
  int32_t length = 24;
  int32_t type;
  int32_t value = 0;
  int32_t fourth = 0;
  int32_t zero[2] = {0, 0};
};

template <int kEntries>
struct Request {
  int32_t totalLength = sizeof(Request);
  int32_t version = 1;
  int32_t errorOffset = 0;
  int32_t reserved = 0;
  Entry entries[kEntries];
};
static_assert(sizeof(Request<1>) == 40 && sizeof(Request<2>) == 64);

int setFlag(int fd, Directive type, bool on) {
  Request<1> request{.entries = {{.type = type, .value = on, .fourth = on ? -1 : 0}}};
  return kest_fcntl(fd, &request);
}

}  // namespace

int getInodeFlags(int fd, InodeFlags *flags) {
  Request<2> request{.entries = {{.type = kGetImmutable}, {.type = kGetAppendOnly}}};
  if (kest_fcntl(fd, &request) != 0) return -1;
  flags->immutable = request.entries[0].value != 0;
  flags->appendOnly = request.entries[1].value != 0;
  return 0;
}

int clearInodeFlags(int fd) {
  Request<2> request{.entries = {{.type = kSetImmutable}, {.type = kSetAppendOnly}}};
  return kest_fcntl(fd, &request);
}

int setImmutableFlag(int fd, bool on) {
  return setFlag(fd, kSetImmutable, on);
}

int setAppendOnlyFlag(int fd, bool on) {
  return setFlag(fd, kSetAppendOnly, on);
}
