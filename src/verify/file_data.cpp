#include "verify/file_data.h"

#include <string.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "run/run_handles.h"
#include "verify/extent_map.h"
#include "verify/object_state.h"

namespace {

constexpr int64_t kPiece = 256 * 1024;

// A stretch of data or of a hole.
struct Stretch {
  int64_t end = 0;
  bool hole = false;
};

class DataComparison {
 public:
  DataComparison(kest_ifile_t *active, kest_ifile_t *snapshot) : files_{active, snapshot} {}

  // Compares [from, to). 0 or an errno.
  int compare(int64_t from, int64_t to) {
    for (int64_t at = from; at < to && !(data_at >= 0 && holes_differ);) {
      Stretch now, then;
      int rc = stretchAt(files_[0], at, to, &now);
      if (rc == 0) rc = stretchAt(files_[1], at, to, &then);
      if (rc != 0) return rc;
      const int64_t end = std::min(now.end, then.end);
      if (now.hole != then.hole) holes_differ = true;
      if (data_at < 0 && !(now.hole && then.hole)) {
        rc = compareBytes(at, end, now.hole, then.hole);
        if (rc != 0) return rc;
      }
      at = end;
    }
    return 0;
  }

  int64_t data_at = -1;  // offset of the first byte that differs
  bool holes_differ = false;

 private:
  // `to` where the file has become shorter meanwhile.
  static int stretchAt(kest_ifile_t *file, int64_t at, int64_t to, Stretch *stretch) {
    int hole = 0;
    int64_t offset = at;
    const int64_t length = kest_ireadx(file, nullptr, nullptr, 0, &offset, to, &hole);
    if (length < 0) return errno;
    *stretch = length == 0 ? Stretch{to, true} : Stretch{at + length, hole != 0};
    return 0;
  }

  int compareBytes(int64_t from, int64_t to, bool hole_now, bool hole_then) {
    for (int64_t at = from; at < to;) {
      const int64_t want = std::min(kPiece, to - at);
      int rc = read(0, at, want, hole_now);
      if (rc == 0) rc = read(1, at, want, hole_then);
      if (rc != 0) return rc;
      if (memcmp(buffers_[0].data(), buffers_[1].data(), static_cast<size_t>(want)) != 0) {
        const auto end = buffers_[0].begin() + want;
        const auto first = std::mismatch(buffers_[0].begin(), end, buffers_[1].begin()).first;
        data_at = at + (first - buffers_[0].begin());
        return 0;
      }
      at += want;
    }
    return 0;
  }

  // What lies behind the end of a file that has become shorter reads as zeros.
  int read(int side, int64_t at, int64_t want, bool hole) {
    std::vector<char> &buffer = buffers_[side];
    if (buffer.size() < static_cast<size_t>(want)) buffer.resize(static_cast<size_t>(want));
    int64_t got = 0;
    if (!hole) {
      int64_t offset = at;
      got = kest_iread(files_[side], buffer.data(), want, &offset);
      if (got < 0) return errno;
    }
    std::fill(buffer.begin() + got, buffer.begin() + want, '\0');
    return 0;
  }

  kest_ifile_t *files_[2];
  std::vector<char> buffers_[2];
};

// Calls `each(offset, length)` for every range that the difference scan names below `size`, as long as
// it returns 0. 0 or an errno.
template <typename Each>
int forEachChange(kest_ifile_t *active, int64_t size, Each each) {
  for (int64_t offset = 0; offset < size;) {
    int hole = 0;
    const int64_t length = kest_ireadx(active, handles.iscanP, nullptr, 0, &offset, size, &hole);
    if (length <= 0) return length < 0 ? errno : 0;
    if (const int rc = each(offset, length)) return rc;
    offset += length;
  }
  return 0;
}

// The quick answer is no proof: of a file that came by its preallocated blocks through a reflink the
// kernel says that they are data. 0 or an errno.
int compareHoles(kest_ifile_t *active, kest_ifile_t *snapshot, int64_t size, const std::string &path,
                 Report *report) {
  std::vector<Extent> now, then;
  int rc = readExtentMap(active, &now);
  if (rc == 0) rc = readExtentMap(snapshot, &then);
  if (rc != 0) return rc;
  const int64_t at = firstDifference(dataRanges(now, size), dataRanges(then, size));
  if (at >= 0) report->difference("holes", path, {std::to_string(at)});
  return 0;
}

}  // namespace

int compareData(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                const std::string &path, Report *report) {
  struct stat st;
  if (statObject(active, &st) != 0) return errno;
  const int64_t size = std::min<int64_t>(st.st_size, static_cast<int64_t>(snapshot->if_size));
  DataComparison comparison(active, snapshot);
  int rc = 0;
  if (by_difference) {
    rc = forEachChange(active, size, [&](int64_t offset, int64_t length) {
      return comparison.compare(offset, offset + length);
    });
  } else {
    rc = comparison.compare(0, size);
  }
  if (rc != 0) return rc;
  if (comparison.data_at >= 0) report->difference("data", path, {std::to_string(comparison.data_at)});
  return comparison.holes_differ ? compareHoles(active, snapshot, size, path, report) : 0;
}

int dataRangesDiffer(kest_ifile_t *active) {
  int64_t offset = 0;
  int hole = 0;
  const int64_t length = kest_ireadx(active, handles.iscanP, nullptr, 0, &offset, 0, &hole);
  return length < 0 ? -1 : length > 0;
}
