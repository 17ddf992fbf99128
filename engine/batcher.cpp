#include "engine/batcher.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "formats/batch_line.h"

namespace {

uint64_t rangeBytes(const ListedRecord &record) {
  Operation op;
  return parseOpString(record.opString, &op) && op.isRange(1) ? op.length : 0;
}

}  // namespace

size_t balancedBatchSize(uint64_t records, size_t workers, bool waits, size_t most) {
  constexpr uint64_t kBatchesPerWorker = 2;
  const uint64_t least = waits ? 100 : 400;
  const uint64_t share = records / (kBatchesPerWorker * std::max<size_t>(workers, 1)) + 1;
  return static_cast<size_t>(std::min<uint64_t>(std::max(share, least), most));
}

BatchRecord::BatchRecord(const ListedRecord &record)
    : aggregate(record.aggregate), bytes(rangeBytes(record)), line(formatBatchLine(record)) {}

void Batcher::add(BatchRecord record) {
  if (!run_.empty() && run_.front().aggregate != record.aggregate) endRun();
  run_.push_back(std::move(record));
  // With two records more than a full batch, the remainder is large enough to stand alone.
  if (run_.size() > max_records_ + 1) {
    closeOpen();
    const auto cut = run_.begin() + static_cast<ptrdiff_t>(max_records_);
    ready_.emplace_back(std::make_move_iterator(run_.begin()), std::make_move_iterator(cut));
    run_.erase(run_.begin(), cut);
  }
}

void Batcher::endRun() {
  uint64_t bytes = 0;
  for (const BatchRecord &record : run_) bytes += std::min(record.bytes, kSharedBytes);
  const bool share = bytes == 0 || open_bytes_ == 0 || open_bytes_ + bytes <= kSharedBytes;
  const bool fits = open_.size() + run_.size() <= max_records_ && share;
  if (!fits) closeOpen();
  if (max_records_ == 1 && run_.size() == 2) {
    // With a batch size of one every batch is full, so there are no remainders.
    ready_.push_back({std::move(run_.front())});
    run_.erase(run_.begin());
  }
  std::move(run_.begin(), run_.end(), std::back_inserter(open_));
  open_bytes_ += bytes;
  run_.clear();
}

void Batcher::closeOpen() {
  if (!open_.empty()) ready_.push_back(std::exchange(open_, {}));
  open_bytes_ = 0;
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
