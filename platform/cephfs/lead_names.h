// The names under which a comparison met the inodes that a walk has to reach, so that the walk need not
// list the directories again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "diff/entry_pairs.h"

namespace kest {

class LeadNames {
 public:
  // Of an active directory. Beyond kMost entries nothing is kept, and whole() is false.
  void add(uint64_t dir, DirEntry entry) {
    if (++count_ > kMost) return;
    names_[dir].push_back(std::move(entry));
  }
  bool whole() const { return count_ <= kMost; }
  void leaveOut() { count_ = kMost + 1; }  // entries of another process are missing
  const std::unordered_map<uint64_t, std::vector<DirEntry>> &all() const { return names_; }
  // NULL: there are none.
  const std::vector<DirEntry> *of(uint64_t dir) const {
    const auto found = names_.find(dir);
    return found == names_.end() ? nullptr : &found->second;
  }

 private:
  static constexpr size_t kMost = 1 << 16;  // some 10 MiB
  std::unordered_map<uint64_t, std::vector<DirEntry>> names_;
  size_t count_ = 0;
};

}  // namespace kest
