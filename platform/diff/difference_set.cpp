#include "diff/difference_set.h"

#include <algorithm>
#include <utility>

namespace kest {

void DifferenceSet::setJunctions(std::vector<Junction> junctions) {
  junctions_ = std::move(junctions);
  std::sort(junctions_.begin(), junctions_.end(),
            [](const Junction &a, const Junction &b) { return a.dir < b.dir; });
}

DiffInode DifferenceSet::firstFrom(uint64_t ino) const {
  SortedPairs::Cursor cursor = inodesFrom(ino);
  return next(&cursor);
}

DiffInode DifferenceSet::next(SortedPairs::Cursor *cursor) const {
  NumberPair found;
  if (!cursor->next(&found)) return {};
  const auto added = added_.find(found.first);
  const unsigned more = added == added_.end() ? 0 : added->second;
  return {found.first, static_cast<unsigned>(found.second) | more};
}

DiffInode DifferenceSet::find(uint64_t ino) const {
  const DiffInode first = firstFrom(ino);
  return first.ino == ino ? first : DiffInode{};
}

bool DifferenceSet::leads(uint64_t dir) const {
  NumberPair found;
  return leadsFrom(dir).next(&found) && found.first == dir;
}

std::span<const Junction> DifferenceSet::junctionsIn(uint64_t dir) const {
  const auto below = [](const Junction &one, uint64_t number) { return one.dir < number; };
  const auto first = std::lower_bound(junctions_.begin(), junctions_.end(), dir, below);
  const auto last =
      std::find_if(first, junctions_.end(), [&](const Junction &one) { return one.dir != dir; });
  return {first, last};
}

const Junction *DifferenceSet::junction(uint64_t id) const {
  const auto found = std::find_if(junctions_.begin(), junctions_.end(),
                                  [id](const Junction &one) { return one.id == id; });
  return found == junctions_.end() ? nullptr : &*found;
}

}  // namespace kest
