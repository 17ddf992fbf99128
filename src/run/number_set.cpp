#include "run/number_set.h"

size_t NumberSet::placeOf(const std::vector<uint64_t> &places, uint64_t number) {
  const size_t mask = places.size() - 1;
  size_t at = (number * 0x9e3779b97f4a7c15u >> 20) & mask;
  while (places[at] != 0 && places[at] != number) at = (at + 1) & mask;
  return at;
}

bool NumberSet::contains(uint64_t number) const {
  if (number == 0) return has_zero_;
  return !places_.empty() && places_[placeOf(places_, number)] == number;
}

bool NumberSet::insert(uint64_t number) {
  if (number == 0) {
    const bool added = !has_zero_;
    has_zero_ = true;
    return added;
  }
  if ((used_ + 1) * 8 > places_.size() * 7) grow();
  uint64_t &place = places_[placeOf(places_, number)];
  if (place == number) return false;
  place = number;
  ++used_;
  return true;
}

void NumberSet::grow() {
  std::vector<uint64_t> wider(places_.empty() ? 64 : places_.size() * 2);
  for (const uint64_t number : places_)
    if (number != 0) wider[placeOf(wider, number)] = number;
  places_ = std::move(wider);
}
