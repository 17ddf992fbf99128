#include "diff/change_notes.h"

#include <algorithm>

namespace kest {

// Moves as many notes as there is room for, and drops the rest.
template <typename Fact>
void ChangeNotes::takeSome(std::vector<Note<Fact>> *notes, std::vector<Note<Fact>> *others) {
  const size_t room = std::min(kMost - notes->size(), others->size());
  notes->insert(notes->end(), others->begin(), others->begin() + static_cast<ptrdiff_t>(room));
  *others = {};
}

template <typename Fact>
bool ChangeNotes::findIn(const std::vector<Note<Fact>> &notes, uint64_t ino, Fact *fact) {
  const auto found =
      std::lower_bound(notes.begin(), notes.end(), ino,
                       [](const Note<Fact> &one, uint64_t number) { return one.ino < number; });
  if (found == notes.end() || found->ino != ino) return false;
  *fact = found->fact;
  return true;
}

void ChangeNotes::take(ChangeNotes *other) {
  takeSome(&notes_, &other->notes_);
  takeSome(&lost_, &other->lost_);
  if (entries_ + other->entries_ > kMost) return;
  directories_.merge(other->directories_);
  entries_ += other->entries_;
}

void ChangeNotes::sort() {
  const auto below = [](const auto &a, const auto &b) { return a.ino < b.ino; };
  std::sort(notes_.begin(), notes_.end(), below);
  std::sort(lost_.begin(), lost_.end(), below);
}

bool ChangeNotes::find(uint64_t ino, kest_change_t *change) const {
  return findIn(notes_, ino, change);
}

bool ChangeNotes::findLost(uint64_t ino, kest_lost_t *lost) const {
  return findIn(lost_, ino, lost);
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
