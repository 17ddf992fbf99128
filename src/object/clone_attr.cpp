#include "object/clone_attr.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kest.h"
#include "object/object_stat.h"
#include "run/descriptor.h"
#include "run/trace_log.h"

namespace {

constexpr int32_t kGetExtendedAttribute = 6001;
constexpr int32_t kReasonAbsent = 27, kReasonTooSmall = 29;
constexpr size_t kFirstBuffer = 1024;
constexpr int kMostAttempts = 5;  // the attribute can grow between two of them

struct AttributeRequest {
  int32_t totalLength;
  int32_t version;
  int32_t errorOffset;
  int32_t reserved;
  int32_t length;
  int32_t type;
  int32_t nameLength;
  int32_t valueLength;
  int32_t flags;
  int32_t reason;
};
static_assert(sizeof(AttributeRequest) == 40);

size_t padded(size_t length) {
  return (length + 7) & ~size_t{7};
}

int failed(const std::string &path, int code, int rc, int err) {
  traceLog("getCloneXattr: path %s, rc %d, code %d, err %d, errno %d\n", path.c_str(), 0, code, rc,
           err);
  return 0;
}

// 1 when the attribute was read, or could not be; 0 when it is missing or too short.
int readCloneSnap(const std::string &path, int fd, CloneSnapAttr *snap) {
  std::vector<uint8_t> value;
  const int rc = getFileAttribute(fd, "CLONESNAP", &value);
  if (rc < 0) {
    traceLog("getCloneXattr: get clone snap failed, path %s\n", path.c_str());
    return 1;
  }
  if (rc == 0 || value.size() < snap->bytes.size()) {
    traceLog("getCloneXattr: clone snap EA too short, path %s, len %d\n", path.c_str(),
             static_cast<int>(value.size()));
    return 0;
  }
  std::copy_n(value.begin(), snap->bytes.size(), snap->bytes.begin());
  return 1;
}

}  // namespace

int getFileAttribute(int fd, const std::string &name, std::vector<uint8_t> *value) {
  static std::vector<char> buffer(kFirstBuffer);
  value->clear();
  const std::string full = "kest." + name;
  const size_t value_at = sizeof(AttributeRequest) + padded(full.size());
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    AttributeRequest request{};
    request.totalLength = static_cast<int32_t>(buffer.size());
    request.version = 1;
    request.length = request.totalLength - 16;
    request.type = kGetExtendedAttribute;
    request.nameLength = static_cast<int32_t>(full.size());
    request.valueLength = static_cast<int32_t>(buffer.size() - value_at);
    std::fill(buffer.begin(), buffer.end(), '\0');
    memcpy(buffer.data(), &request, sizeof request);
    memcpy(buffer.data() + sizeof request, full.data(), full.size());

    const int rc = kest_fcntl(fd, buffer.data());
    memcpy(&request, buffer.data(), sizeof request);
    if (request.reason == kReasonAbsent) return 0;
    if (request.reason == kReasonTooSmall) {
      buffer.resize(value_at + static_cast<size_t>(std::max(request.valueLength, 0)));
      continue;
    }
    if (rc != 0) return -1;
    if (request.valueLength < 0 || static_cast<size_t>(request.valueLength) > buffer.size() - value_at)
      break;
    const auto start = buffer.begin() + static_cast<std::ptrdiff_t>(value_at);
    value->assign(start, start + request.valueLength);
    return 1;
  }
  errno = EIO;
  return -1;
}

int getCloneXattr(const std::string &path, CloneAttr *attr, CloneSnapAttr *snap) {
  // Attributes can be read through a descriptor that only names the object, and nothing is opened for
  // real.
  Descriptor fd(openObject(path));
  if (!fd) {
    const int err = errno;
    traceLog("getCloneXattr: open %s failed\n", path.c_str());
    return failed(path, 1, -1, err);
  }
  struct stat st;
  if (fstat(fd.get(), &st) == 0 && !S_ISREG(st.st_mode)) return 0;
  std::vector<uint8_t> value;
  const int rc = getFileAttribute(fd.get(), "CLONE", &value);
  if (rc < 0) {
    const int err = errno;
    traceLog("getCloneXattr: get clone attr failed, path %s\n", path.c_str());
    return failed(path, 2, rc, err);
  }
  if (rc == 0) return 0;
  if (value.size() < attr->bytes.size()) {
    const int length = static_cast<int>(value.size());
    traceLog("getCloneXattr: clone EA too short, path %s, len %d\n", path.c_str(), length);
    return failed(path, 3, rc, 0);
  }
  std::copy_n(value.begin(), attr->bytes.size(), attr->bytes.begin());
  return snap != nullptr && attr->parentInSnapshot() ? readCloneSnap(path, fd.get(), snap) : 1;
}
