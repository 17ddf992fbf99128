#include "libkest/entry_list.h"

#include <cstring>

namespace kest {

namespace {
constexpr size_t kFields = offsetof(kest_direntx64_t, d_name);
}

void EntryList::clear() {
  bytes_.clear();
  next_ = 0;
}

void EntryList::add(const kest_direntx64_t &entry) {
  const char *begin = reinterpret_cast<const char *>(&entry);
  bytes_.insert(bytes_.end(), begin, begin + kFields + strlen(entry.d_name) + 1);
}

const kest_direntx64_t *EntryList::next() {
  if (next_ == bytes_.size()) return nullptr;
  const char *at = bytes_.data() + next_;
  const size_t size = kFields + strlen(at + kFields) + 1;
  memcpy(&current_, at, size);
  next_ += size;
  return &current_;
}

}  // namespace kest
