#include "commands/ktapplypolicy/batcher.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kest {

void Batcher::add(ListRecord record) {
  if (!run_.empty() && run_.front().aggregate != record.aggregate) endRun();
  run_.push_back(std::move(record));
  // With two records beyond a full batch there is a remainder that can stand alone.
  if (run_.size() > max_records_ + 1) {
    closeOpen();
    auto cut = run_.begin() + static_cast<ptrdiff_t>(max_records_);
    ready_.emplace_back(std::make_move_iterator(run_.begin()), std::make_move_iterator(cut));
    run_.erase(run_.begin(), cut);
  }
}

void Batcher::endRun() {
  bool has_ranges = std::any_of(run_.begin(), run_.end(),
                                [](const ListRecord &record) { return record.isLargeRange(); });
  bool fits = open_.size() + run_.size() <= max_records_ && !(has_ranges && open_has_ranges_);
  if (!fits) closeOpen();
  if (max_records_ == 1 && run_.size() == 2) {
    // A batch of one leaves no remainders.
    ready_.push_back({std::move(run_.front())});
    run_.erase(run_.begin());
  }
  std::move(run_.begin(), run_.end(), std::back_inserter(open_));
  open_has_ranges_ = open_has_ranges_ || has_ranges;
  run_.clear();
}

void Batcher::closeOpen() {
  if (!open_.empty()) ready_.push_back(std::exchange(open_, {}));
  open_has_ranges_ = false;
}

void Batcher::finish() {
  endRun();
  closeOpen();
}

bool Batcher::take(Batch *batch) {
  if (ready_.empty()) return false;
  *batch = std::move(ready_.front());
  ready_.pop_front();
  return true;
}

}  // namespace kest
