// Control requests for flags and attributes of the object of a descriptor; kest.h describes their
// layout.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "detect/file_systems.h"
#include "kest.h"
#include "libkest/c_call.h"

namespace kest {
namespace {

enum DirectiveType : int32_t {
  kSetImmutable = 5000,
  kGetImmutable = 5001,
  kSetAppendOnly = 5004,
  kGetAppendOnly = 5005,
  kReadAttribute = 6001,
};

enum Reason : int32_t { kRead = 0, kAbsent = 27, kTooSmall = 29 };

struct RequestHeader {
  int32_t total_length;
  int32_t version;
  int32_t error_offset;
  int32_t reserved;
};

struct FlagDirective {
  int32_t length;
  int32_t type;
  int32_t value;
  int32_t fourth;
  uint8_t zero[8];
};

struct AttributeDirective {
  int32_t length;
  int32_t type;
  int32_t name_length;
  int32_t value_length;  // in: of the buffer; out: of the value, even if it does not fit
  int32_t flags;
  int32_t reason;
};
static_assert(sizeof(RequestHeader) == 16 && sizeof(FlagDirective) == 24 &&
              sizeof(AttributeDirective) == 24);

constexpr int64_t kMaxNameLength = 255;

int64_t padded(int64_t length) {
  return (length + 7) & ~int64_t{7};
}

// Returns trusted.kest.CLONE for "kest.CLONE", and any other name unchanged.
std::string storedName(const std::string &name) {
  return name.starts_with("kest.") ? "trusted." + name : name;
}

int readAttribute(Inode &inode, char *at) {
  AttributeDirective directive;
  memcpy(&directive, at, sizeof directive);
  int64_t name_room = padded(directive.name_length);
  if (directive.name_length < 1 || directive.name_length > kMaxNameLength ||
      directive.value_length < 0 ||
      int64_t{sizeof directive} + name_room + directive.value_length > directive.length)
    return -EINVAL;
  std::string name(at + sizeof directive, static_cast<size_t>(directive.name_length));
  if (name.find('\0') != std::string::npos) return -EINVAL;

  std::string value;
  int rc = inode.readXattr(storedName(name).c_str(), &value);
  if (rc == -ENODATA || rc == -EOPNOTSUPP) {
    directive.reason = kAbsent;
  } else if (rc != 0) {
    return rc;
  } else {
    bool fits = value.size() <= static_cast<size_t>(directive.value_length);
    if (fits) std::copy(value.begin(), value.end(), at + sizeof directive + name_room);
    directive.value_length = static_cast<int32_t>(value.size());
    directive.reason = fits ? kRead : kTooSmall;
  }
  memcpy(at, &directive, sizeof directive);
  return 0;
}

int setProtection(Inode &inode, Protection wanted) {
  struct stat st;
  if (int rc = inode.stat(&st); rc != 0) return rc;
  // Other types have no flags, and a flags request on a device would reach its driver.
  return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) ? inode.writeProtection(wanted) : 0;
}

// The flags of the object, read when the first directive needs them.
struct KnownProtection {
  bool known = false;
  Protection now;
};

int runFlagDirective(Inode &inode, char *at, KnownProtection *protection) {
  FlagDirective directive;
  memcpy(&directive, at, sizeof directive);
  if (!protection->known) {
    if (int rc = inode.readProtection(&protection->now); rc != 0) return rc;
    protection->known = true;
  }
  Protection wanted = protection->now;
  switch (directive.type) {
    case kGetImmutable:
      directive.value = wanted.immutable;
      break;
    case kGetAppendOnly:
      directive.value = wanted.append_only;
      break;
    case kSetImmutable:
      wanted.immutable = directive.value != 0;
      break;
    default:
      wanted.append_only = directive.value != 0;
      break;
  }
  if (wanted != protection->now) {
    protection->known = false;
    return setProtection(inode, wanted);
  }
  memcpy(at, &directive, sizeof directive);
  return 0;
}

bool knownDirective(int32_t length, int32_t type) {
  switch (type) {
    case kSetImmutable:
    case kGetImmutable:
    case kSetAppendOnly:
    case kGetAppendOnly:
      return length == int32_t{sizeof(FlagDirective)};
    case kReadAttribute:
      return length >= int32_t{sizeof(AttributeDirective)};
    default:
      return false;
  }
}

struct Directive {
  int32_t type;
  char *at;
};

// Parses the whole request before the first directive is executed.
int parseRequest(char *request, std::vector<Directive> *directives) {
  RequestHeader header;
  memcpy(&header, request, sizeof header);
  if (header.version != 1) return -EINVAL;
  int64_t left = int64_t{header.total_length} - int64_t{sizeof header};
  char *at = request + sizeof header;
  if (left <= 0) return -EINVAL;
  while (left > 0) {
    int32_t length = 0, type = 0;
    if (left < int64_t{sizeof length + sizeof type}) return -EINVAL;
    memcpy(&length, at, sizeof length);
    memcpy(&type, at + sizeof length, sizeof type);
    if (!knownDirective(length, type) || length > left) return -EINVAL;
    directives->push_back({type, at});
    at += length;
    left -= length;
  }
  return 0;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_fcntl(int fd, void *request) {
  return cCall([&] {
    if (request == nullptr) return -EINVAL;
    std::vector<Directive> directives;
    if (int rc = parseRequest(static_cast<char *>(request), &directives); rc != 0) return rc;
    const std::unique_ptr<Inode> inode = inodeBehind(fd);
    KnownProtection protection;
    for (const Directive &directive : directives) {
      int rc = directive.type == kReadAttribute ? readAttribute(*inode, directive.at)
                                                : runFlagDirective(*inode, directive.at, &protection);
      if (rc != 0) return rc;
    }
    return 0;
  });
}
