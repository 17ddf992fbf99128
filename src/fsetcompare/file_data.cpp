#include "fsetcompare/file_data.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "fsetcompare/extent_map.h"
#include "fsetcompare/object_state.h"
#include "run/run_handles.h"

namespace {

constexpr int64_t kPiece = 256 * 1024;

// A contiguous range of data or of a hole.
struct Stretch {
  int64_t end = 0;
  bool hole = false;
};

class DataComparison {
 public:
  DataComparison(kest_ifile_t *active, kest_ifile_t *snapshot) : files_{active, snapshot} {}

  // Compares [from, to).
  Result compare(int64_t from, int64_t to) {
    for (int64_t at = from; at < to && !(dataAt_ >= 0 && holesDiffer_);) {
      Stretch now, then;
      if (Result r = stretchAt(files_[0], at, to, &now); !r) return r;
      if (Result r = stretchAt(files_[1], at, to, &then); !r) return r;
      const int64_t end = std::min(now.end, then.end);
      if (now.hole != then.hole) holesDiffer_ = true;
      if (dataAt_ < 0 && !(now.hole && then.hole))
        if (Result r = compareBytes(at, end, now.hole, then.hole); !r) return r;
      at = end;
    }
    return {};
  }

  int64_t dataAt() const { return dataAt_; }  // offset of the first byte that differs, or -1
  bool holesDiffer() const { return holesDiffer_; }

 private:
  // Finds the end of the stretch at `at`; `to` if the file has become shorter meanwhile.
  static Result stretchAt(kest_ifile_t *file, int64_t at, int64_t to, Stretch *stretch) {
    int hole = 0;
    int64_t offset = at;
    const int64_t length = kest_ireadx(file, nullptr, nullptr, 0, &offset, to, &hole);
    if (length < 0) return failedErrno(0);
    *stretch = length == 0 ? Stretch{to, true} : Stretch{at + length, hole != 0};
    return {};
  }

  Result compareBytes(int64_t from, int64_t to, bool hole_now, bool hole_then) {
    for (int64_t at = from; at < to;) {
      const int64_t want = std::min(kPiece, to - at);
      if (Result r = read(0, at, want, hole_now); !r) return r;
      if (Result r = read(1, at, want, hole_then); !r) return r;
      if (memcmp(buffers_[0].data(), buffers_[1].data(), static_cast<size_t>(want)) != 0) {
        const auto end = buffers_[0].begin() + want;
        const auto first = std::mismatch(buffers_[0].begin(), end, buffers_[1].begin()).first;
        dataAt_ = at + (first - buffers_[0].begin());
        return {};
      }
      at += want;
    }
    return {};
  }

  // Reads bytes; those after the end of a file that has become shorter are zeros.
  Result read(int side, int64_t at, int64_t want, bool hole) {
    std::vector<char> &buffer = buffers_[side];
    if (buffer.size() < static_cast<size_t>(want)) buffer.resize(static_cast<size_t>(want));
    int64_t got = 0;
    if (!hole) {
      int64_t offset = at;
      got = kest_iread(files_[side], buffer.data(), want, &offset);
      if (got < 0) return failedErrno(0);
    }
    std::fill(buffer.begin() + got, buffer.begin() + want, '\0');
    return {};
  }

  kest_ifile_t *files_[2];
  std::vector<char> buffers_[2];
  int64_t dataAt_ = -1;
  bool holesDiffer_ = false;
};

// Visits every range below `size` in the difference scan, until a visit fails.
Result forEachChange(kest_ifile_t *active, int64_t size,
                     const std::function<Result(int64_t offset, int64_t length)> &visit) {
  for (int64_t offset = 0; offset < size;) {
    int hole = 0;
    const int64_t length = kest_ireadx(active, handles.iscanP, nullptr, 0, &offset, size, &hole);
    if (length < 0) return failedErrno(0);
    if (length == 0) return {};
    if (Result r = visit(offset, length); !r) return r;
    offset += length;
  }
  return {};
}

// Compares the extent maps, because the first answer is no proof: the kernel reports preallocated
// blocks that a file got by a reflink as data.
Result compareHoles(kest_ifile_t *active, kest_ifile_t *snapshot, int64_t size, const std::string &path,
                    Report *report) {
  std::vector<Extent> now, then;
  if (Result r = readExtentMap(active, &now); !r) return r;
  if (Result r = readExtentMap(snapshot, &then); !r) return r;
  const int64_t at = firstDifference(dataRanges(now, size), dataRanges(then, size));
  if (at >= 0) report->difference("holes", path, {std::to_string(at)});
  return {};
}

}  // namespace

Result compareData(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                   const std::string &path, Report *report) {
  struct stat st;
  if (Result r = statObject(active, &st); !r) return r;
  const int64_t size = std::min<int64_t>(st.st_size, static_cast<int64_t>(snapshot->if_size));
  DataComparison comparison(active, snapshot);
  const auto compareRange = [&](int64_t offset, int64_t length) {
    return comparison.compare(offset, offset + length);
  };
  const Result compared =
      by_difference ? forEachChange(active, size, compareRange) : compareRange(0, size);
  if (!compared) return compared;
  if (comparison.dataAt() >= 0) report->difference("data", path, {std::to_string(comparison.dataAt())});
  return comparison.holesDiffer() ? compareHoles(active, snapshot, size, path, report) : Result{};
}

Result dataRangesDiffer(kest_ifile_t *active, bool *differ) {
  int64_t offset = 0;
  int hole = 0;
  const int64_t length = kest_ireadx(active, handles.iscanP, nullptr, 0, &offset, 0, &hole);
  *differ = length > 0;
  return length < 0 ? failedErrno(0) : Result{};
}
