// Listed directory entries, in little more memory than their names.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "diff/entry_pairs.h"
#include "kest.h"

namespace kest {

class EntryList {
 public:
  void clear();
  void add(const kest_direntx64_t &entry);
  // The next entry, valid until the next call; NULL at the end.
  const kest_direntx64_t *next();

 private:
  std::vector<char> bytes_;  // fields, then the name and its terminator, entry by entry
  size_t next_ = 0;
  kest_direntx64_t current_{};
};

// Sets d_name. A name that is too long is cut.
void setName(kest_direntx64_t *record, std::string_view name);

// The record of an entry, with generation 0.
kest_direntx64_t toRecord(const DirEntry &entry);

}  // namespace kest
