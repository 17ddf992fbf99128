// Directory entries from a listing, in little more memory than their names take.
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
  // Returns the next entry, which is valid until the next call; NULL after the last.
  const kest_direntx64_t *next();

 private:
  std::vector<char> bytes_;  // for each entry the fields, the name and its terminator
  size_t next_ = 0;
  kest_direntx64_t current_{};
};

// Sets d_name. Cuts off a name that is too long.
void setName(kest_direntx64_t *record, std::string_view name);

// Returns the record of an entry, with generation 0.
kest_direntx64_t toRecord(const DirEntry &entry);

}  // namespace kest
