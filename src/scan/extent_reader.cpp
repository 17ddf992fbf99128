#include "scan/extent_reader.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>

namespace {
// Not errno values of the system: they are known from trace logs.
constexpr int kBadScan = 191, kBadInode = 192;
}  // namespace

int64_t readExtent(kest_ifile_t *file, kest_iscan_t *iscan, void *buffer, int64_t size, int64_t *offset,
                   int64_t end, int *hole) {
  *hole = 0;
  if (iscan == nullptr) {
    errno = kBadScan;
    return -1;
  }
  if (file == nullptr || file->if_kind != KEST_IFILE_KIND) {
    errno = kBadInode;
    return -1;
  }
  if (S_ISDIR(file->if_mode)) {
    errno = EISDIR;
    return -1;
  }
  const int64_t file_size = static_cast<int64_t>(file->if_size);
  const int64_t limit = end == 0 || end > file_size ? file_size : end;
  if (limit <= *offset) return 0;
  const int64_t length = kest_ireadx(file, iscan, nullptr, 0, offset, limit, hole);
  if (length <= 0 || buffer == nullptr || *hole) return length;
  int64_t position = *offset;
  return kest_iread(file, buffer, std::min(size, length), &position);
}
