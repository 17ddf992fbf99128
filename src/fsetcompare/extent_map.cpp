#include "fsetcompare/extent_map.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "base/unique_fd.h"
#include "fsetcompare/real_file.h"
#include "run/settings.h"

namespace {

constexpr unsigned kExtentsAtOnce = 256;

// In a file of the greatest size the end of the last block is no valid offset.
int64_t roundUp(int64_t offset) {
  return offset > INT64_MAX - kBlock ? INT64_MAX : (offset + kBlock - 1) / kBlock * kBlock;
}

void add(Ranges *ranges, int64_t start, int64_t end) {
  if (!ranges->empty() && ranges->back().second >= start)
    ranges->back().second = std::max(ranges->back().second, end);
  else
    ranges->emplace_back(start, end);
}

}  // namespace

Result readExtentMap(const kest_ifile_t *file, std::vector<Extent> *extents) {
  UniqueFd fd;
  if (Result r = openForReading(file, &fd); !r) return r;
  std::vector<uint64_t> room((sizeof(fiemap) + kExtentsAtOnce * sizeof(fiemap_extent)) / 8 + 1);
  auto *map = reinterpret_cast<fiemap *>(room.data());
  for (uint64_t at = 0;;) {
    std::fill(room.begin(), room.end(), 0);
    map->fm_start = at;
    map->fm_length = FIEMAP_MAX_OFFSET - at;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = kExtentsAtOnce;
    if (Result r = called(ioctl(fd.get(), FS_IOC_FIEMAP, map)); !r) return r;
    for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
      const fiemap_extent &one = map->fm_extents[i];
      at = one.fe_logical + one.fe_length;
      // A preallocated extent reads as zeros and counts as a hole.
      if (one.fe_flags & FIEMAP_EXTENT_UNWRITTEN) continue;
      const uint64_t end = std::min<uint64_t>(at, INT64_MAX);
      extents->push_back({static_cast<int64_t>(one.fe_logical), static_cast<int64_t>(end),
                          one.fe_physical, (one.fe_flags & FIEMAP_EXTENT_ENCODED) != 0,
                          (one.fe_flags & FIEMAP_EXTENT_DATA_INLINE) == 0});
    }
    if (map->fm_mapped_extents == 0 ||
        (map->fm_extents[map->fm_mapped_extents - 1].fe_flags & FIEMAP_EXTENT_LAST) != 0)
      return {};
  }
}

Ranges dataRanges(const std::vector<Extent> &extents, int64_t size) {
  Ranges ranges;
  for (const Extent &one : extents)
    if (one.start < size) add(&ranges, one.start, std::min(roundUp(one.end), roundUp(size)));
  return ranges;
}

Ranges sharedRanges(const std::vector<Extent> &one, const std::vector<Extent> &other) {
  Ranges ranges;
  for (auto a = one.begin(), b = other.begin(); a != one.end() && b != other.end();) {
    const int64_t start = std::max(a->start, b->start), end = std::min(a->end, b->end);
    const auto placeAt = [&](const Extent &extent) {
      return extent.place + (extent.whole ? 0 : static_cast<uint64_t>(start - extent.start));
    };
    if (start < end && a->placed && b->placed && a->whole == b->whole && placeAt(*a) == placeAt(*b))
      add(&ranges, start, end);
    a->end < b->end ? ++a : ++b;
  }
  return ranges;
}

int64_t firstDifference(const Ranges &one, const Ranges &other) {
  const auto [a, b] = std::mismatch(one.begin(), one.end(), other.begin(), other.end());
  if (a == one.end() && b == other.end()) return -1;
  if (a == one.end()) return b->first;
  if (b == other.end()) return a->first;
  return a->first != b->first ? std::min(a->first, b->first) : std::min(a->second, b->second);
}

int64_t firstMissing(const Ranges &one, const Ranges &other) {
  auto cover = other.begin();
  for (const auto &[start, end] : one) {
    while (cover != other.end() && cover->second <= start) ++cover;
    if (cover == other.end() || cover->first > start) return start;
    if (cover->second < end) return cover->second;
  }
  return -1;
}
