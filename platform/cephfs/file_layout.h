// How the bytes of a file are laid out over objects, and the way back.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace kest {

struct FileLayout {
  uint64_t stripe_unit = 0, stripe_count = 0, object_size = 0;  // bytes, objects of a set, bytes
  std::string pool, name_space;

  // Parses the text of the attribute ceph.file.layout. Returns false if it is malformed.
  bool parse(std::string_view text);

  // Objects that hold a part of the first `size` bytes: 0 to objectsOf(size) - 1.
  uint64_t objectsOf(uint64_t size) const {
    const uint64_t set = object_size * stripe_count;
    const uint64_t whole = size / set * stripe_count, rest = size % set;
    return whole + std::min(stripe_count, (rest + stripe_unit - 1) / stripe_unit);
  }
  // Calls visit(start, end) for the pieces of the file that [from, to) of an object holds, upwards.
  template <typename Visit>
  void piecesOf(uint64_t object, uint64_t from, uint64_t to, Visit visit) const {
    const uint64_t set = object / stripe_count, column = object % stripe_count;
    const uint64_t rows = object_size / stripe_unit;
    for (uint64_t at = from; at < to;) {
      const uint64_t row = at / stripe_unit;
      const uint64_t stop = std::min(to, (row + 1) * stripe_unit);
      const uint64_t start =
          ((set * rows + row) * stripe_count + column) * stripe_unit + at % stripe_unit;
      visit(start, start + (stop - at));
      at = stop;
    }
  }
  // The object that holds the byte at `offset`.
  uint64_t objectAt(uint64_t offset) const {
    const uint64_t block = offset / stripe_unit, rows = object_size / stripe_unit;
    return block / stripe_count / rows * stripe_count + block % stripe_count;
  }
};

// The name of an object of a file.
std::string objectName(uint64_t ino, uint64_t object);

}  // namespace kest
