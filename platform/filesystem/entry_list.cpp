#include "filesystem/entry_list.h"

#include <algorithm>
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

void setName(kest_direntx64_t *record, std::string_view name) {
  const size_t size = std::min(name.size(), sizeof record->d_name - 1);
  memcpy(record->d_name, name.data(), size);
  record->d_name[size] = 0;
}

kest_direntx64_t toRecord(const DirEntry &entry) {
  kest_direntx64_t record{};
  record.d_ino = entry.target;
  record.d_type = entry.type;
  record.d_flags = entry.junction ? KEST_DF_JUNCTION : 0;
  setName(&record, entry.name);
  return record;
}

}  // namespace kest
