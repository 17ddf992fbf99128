#include "scan/clone_state.h"

#include <sys/stat.h>
#include <cerrno>

#include "run/fatal_error.h"
#include "run/trace_log.h"

namespace {

uint64_t bigEndian(const uint8_t *bytes, int count) {
  uint64_t value = 0;
  for (int i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace

uint64_t CloneAttr::parentIno() const {
  return bigEndian(bytes.data(), 8);
}

uint16_t CloneAttr::depth() const {
  return static_cast<uint16_t>(bigEndian(bytes.data() + 14, 2));
}

uint32_t CloneSnapAttr::snapId() const {
  return static_cast<uint32_t>(bigEndian(bytes.data() + 4, 4));
}

namespace {

// 1, 0, or -1 and errno.
int readClone(kest_ifile_t *file, CloneAttr *attr, CloneSnapAttr *snap) {
  if (!S_ISREG(file->if_mode)) return 0;
  const int rc = kest_iclone_attr(file, attr != nullptr ? attr->bytes.data() : nullptr,
                                  snap != nullptr ? snap->bytes.data() : nullptr);
  if (rc < 0) {
    const int err = errno;
    traceLog("isClone: get clone attr failed, ino %lld, errno %d\n",
             static_cast<long long>(file->if_inode), err);
    // A clone would be restored as an ordinary file: the run must not end well.
    setFatalError(err);
    errno = err;
  }
  return rc;
}

}  // namespace

bool isClone(kest_ifile_t *file, CloneAttr *attr, CloneSnapAttr *snap) {
  return readClone(file, attr, snap) == 1;
}

int sameCloneKind(kest_ifile_t *one, kest_ifile_t *other) {
  CloneAttr a, b;
  const int first = readClone(one, &a, nullptr);
  const int second = first < 0 ? first : readClone(other, &b, nullptr);
  if (second < 0) return -1;
  if (first != second) return 0;
  return first == 0 || (a.isParent() == b.isParent() && a.depth() == b.depth());
}
