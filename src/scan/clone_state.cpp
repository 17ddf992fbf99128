#include "scan/clone_state.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>

#include "messages/messages.h"
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

Result isClone(kest_ifile_t *file, bool *clone, CloneAttr *attr, CloneSnapAttr *snap) {
  *clone = false;
  if (!S_ISREG(file->if_mode)) return {};
  const int found = kest_iclone_attr(file, attr != nullptr ? attr->bytes.data() : nullptr,
                                     snap != nullptr ? snap->bytes.data() : nullptr);
  if (found < 0) {
    const Result r = failed(0);
    traceLog("isClone: get clone attr failed, ino %lld, errno %d\n",
             static_cast<long long>(file->if_inode), r.err);
    userMessage(Message::kInodeFailed, file->if_inode, strerror(r.err));
    return r;
  }
  *clone = found == 1;
  return {};
}

Result sameCloneKind(kest_ifile_t *one, kest_ifile_t *other, bool *same) {
  CloneAttr a, b;
  bool first = false, second = false;
  if (Result r = isClone(one, &first, &a); !r) return r;
  if (Result r = isClone(other, &second, &b); !r) return r;
  *same = first == second && (!first || (a.isParent() == b.isParent() && a.depth() == b.depth()));
  return {};
}
