#include "diff/change_notes.h"

#include <algorithm>

namespace kest {

void ChangeNotes::take(ChangeNotes *other) {
  const size_t room = std::min(kMost - notes_.size(), other->notes_.size());
  notes_.insert(notes_.end(), other->notes_.begin(),
                other->notes_.begin() + static_cast<ptrdiff_t>(room));
  other->notes_ = {};
  if (entries_ + other->entries_ > kMost) return;
  directories_.merge(other->directories_);
  entries_ += other->entries_;
}

void ChangeNotes::sort() {
  std::sort(notes_.begin(), notes_.end(), [](const Note &a, const Note &b) { return a.ino < b.ino; });
}

bool ChangeNotes::find(uint64_t ino, kest_change_t *change) const {
  const auto found =
      std::lower_bound(notes_.begin(), notes_.end(), ino,
                       [](const Note &one, uint64_t number) { return one.ino < number; });
  if (found == notes_.end() || found->ino != ino) return false;
  *change = found->change;
  return true;
}

void ChangeNotes::addEntries(uint64_t dir, const EntryDifference &entries) {
  const size_t count = entries.active.size() + entries.snapshot.size();
  if (entries_ + count > kMost) return;
  entries_ += count;
  directories_.emplace(dir, entries);
}

const EntryDifference *ChangeNotes::findEntries(uint64_t dir) const {
  const auto found = directories_.find(dir);
  return found == directories_.end() ? nullptr : &found->second;
}

}  // namespace kest
