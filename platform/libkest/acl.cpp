#include "libkest/acl.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "btrfs/fd_path.h"
#include "btrfs/unique_fd.h"
#include "btrfs/xattr.h"
#include "kest.h"
#include "libkest/c_call.h"

namespace kest {
namespace {

constexpr char kAccess[] = "system.posix_acl_access";
constexpr char kDefault[] = "system.posix_acl_default";
constexpr uint32_t kMagic = 0x4c43414b;
constexpr mode_t kModeBits = 07777;

struct Header {
  int32_t length;  // in: of the buffer; out: of what was stored
  uint16_t version;
  uint8_t type;
  uint8_t pad;
  uint32_t magic;
  uint32_t mode;
  uint32_t access_length;  // 0: none beyond the mode bits
  uint32_t default_length;
};
static_assert(sizeof(Header) == 24);

// Value of an ACL attribute, "" where the object has none. 0 or -errno.
int readAclXattr(int fd, const char *name, std::string *value) {
  int rc = readXattr(fd, name, value);
  if (rc != -ENODATA && rc != -EOPNOTSUPP) return rc;
  value->clear();
  return 0;
}

int applyAclXattr(int fd, const char *name, const std::string &wanted) {
  std::string now;
  if (int rc = readAclXattr(fd, name, &now); rc != 0) return rc;
  if (now == wanted) return 0;
  return wanted.empty() ? removeXattr(fd, name) : writeXattr(fd, name, wanted);
}

int readAclBuffer(int fd, int flags, void *buf) {
  if (buf == nullptr || flags != 0) return -EINVAL;
  int32_t capacity;
  memcpy(&capacity, buf, sizeof capacity);
  AclState state;
  if (int rc = readAcl(fd, &state); rc != 0) return rc;
  const std::string text = encodeAcl(state);
  const auto needed = static_cast<int32_t>(text.size());
  const bool fits = capacity >= needed;
  memcpy(buf, text.data(), fits ? text.size() : sizeof needed);
  return fits ? 0 : -ENOSPC;
}

int writeAclBuffer(int fd, int flags, const void *buf) {
  AclState state;
  if (buf == nullptr || flags != 0 || !decodeAcl(buf, &state)) return -EINVAL;
  return writeAcl(fd, state);
}

int openObject(const char *path, UniqueFd *fd) {
  if (path == nullptr) return -EINVAL;
  fd->reset(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return *fd ? 0 : -errno;
}

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

int readAcl(int fd, AclState *state) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  state->mode = st.st_mode & kModeBits;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = readAclXattr(fd, kAccess, &state->access); rc != 0) return rc;
  return S_ISDIR(st.st_mode) ? readAclXattr(fd, kDefault, &state->inherited) : 0;
}

int writeAcl(int fd, const AclState &state) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = applyAclXattr(fd, kAccess, state.access); rc != 0) return rc;
  if (S_ISDIR(st.st_mode)) {
    if (int rc = applyAclXattr(fd, kDefault, state.inherited); rc != 0) return rc;
  }
  // Last: setting an access ACL changes the permission bits.
  if (fstat(fd, &st) != 0) return -errno;
  if ((st.st_mode & kModeBits) == state.mode) return 0;
  return changeMode(fd, state.mode) == 0 ? 0 : -errno;
}

}  // namespace kest

using namespace kest;

extern "C" int kest_getacl(const char *path, int flags, void *buf) {
  return cCall([&] {
    UniqueFd fd;
    int rc = openObject(path, &fd);
    return rc == 0 ? readAclBuffer(fd.get(), flags, buf) : rc;
  });
}

extern "C" int kest_putacl(const char *path, int flags, const void *buf) {
  return cCall([&] {
    UniqueFd fd;
    int rc = openObject(path, &fd);
    return rc == 0 ? writeAclBuffer(fd.get(), flags, buf) : rc;
  });
}

extern "C" int kest_fgetacl(int fd, int flags, void *buf) {
  return cCall([&] { return readAclBuffer(fd, flags, buf); });
}

extern "C" int kest_fputacl(int fd, int flags, const void *buf) {
  return cCall([&] { return writeAclBuffer(fd, flags, buf); });
}
