#include "diff/sorted_pairs.h"

#include <algorithm>
#include <queue>
#include <utility>

namespace kest {

namespace {

constexpr size_t kBlockPairs = 32;  // a lookup decodes half a block; the head of a block takes 24 bytes
constexpr size_t kRunPairs = 64 * 1024;

void putNumber(std::vector<uint8_t> *bytes, uint64_t number) {
  for (; number >= 0x80; number >>= 7) bytes->push_back(static_cast<uint8_t>(number | 0x80));
  bytes->push_back(static_cast<uint8_t>(number));
}

uint64_t takeNumber(const std::vector<uint8_t> &bytes, size_t *at) {
  uint64_t number = 0;
  for (int shift = 0;; shift += 7) {
    const uint8_t byte = bytes[(*at)++];
    number |= static_cast<uint64_t>(byte & 0x7f) << shift;
    if (byte < 0x80) return number;
  }
}

}  // namespace

void SortedPairs::append(const NumberPair &pair) {
  if (count_++ % kBlockPairs == 0) {
    blocks_.push_back({pair, bytes_.size()});
  } else {
    const uint64_t step = pair.first - last_.first;
    putNumber(&bytes_, step);
    putNumber(&bytes_, step == 0 ? pair.second - last_.second : pair.second);
  }
  last_ = pair;
}

bool SortedPairs::Cursor::next(NumberPair *pair) {
  if (set_ == nullptr || at_ == set_->count_) return false;
  if (at_ % kBlockPairs == 0) {
    const Block &block = set_->blocks_[at_ / kBlockPairs];
    last_ = block.first;
    bytes_ = block.bytes;
  } else {
    const uint64_t step = takeNumber(set_->bytes_, &bytes_);
    const uint64_t second = takeNumber(set_->bytes_, &bytes_);
    last_.second = step == 0 ? last_.second + second : second;
    last_.first += step;
  }
  ++at_;
  *pair = last_;
  return true;
}

SortedPairs::Cursor SortedPairs::from(const NumberPair &pair) const {
  auto above =
      std::upper_bound(blocks_.begin(), blocks_.end(), pair,
                       [](const NumberPair &p, const Block &block) { return p < block.first; });
  const size_t block = above == blocks_.begin() ? 0 : static_cast<size_t>(above - blocks_.begin()) - 1;
  Cursor cursor;
  cursor.set_ = this;
  cursor.at_ = block * kBlockPairs;
  NumberPair found;
  for (;;) {
    const size_t bytes = cursor.bytes_;
    const NumberPair last = cursor.last_;
    if (!cursor.next(&found)) return cursor;
    if (found < pair) continue;
    --cursor.at_;
    cursor.bytes_ = bytes;
    cursor.last_ = last;
    return cursor;
  }
}

uint64_t SortedPairs::secondOf(uint64_t first) const {
  NumberPair found;
  return from({first, 0}).next(&found) && found.first == first ? found.second : 0;
}

void PairSorter::add(const NumberPair &pair) {
  unsorted_.push_back(pair);
  if (unsorted_.size() == kRunPairs) endRun();
}

void PairSorter::add(SortedPairs &&pairs) {
  runs_.push_back(std::move(pairs));
}

void PairSorter::endRun() {
  std::sort(unsorted_.begin(), unsorted_.end());
  unsorted_.erase(std::unique(unsorted_.begin(), unsorted_.end()), unsorted_.end());
  SortedPairs run;
  for (const NumberPair &pair : unsorted_) run.append(pair);
  run.bytes_.shrink_to_fit();
  runs_.push_back(std::move(run));
  unsorted_.clear();
}

SortedPairs PairSorter::finish() {
  if (!unsorted_.empty()) endRun();
  unsorted_ = {};
  std::vector<SortedPairs> runs = std::exchange(runs_, {});
  if (runs.size() == 1) return std::move(runs.front());

  SortedPairs all;
  size_t bytes = 0;
  for (const SortedPairs &run : runs) bytes += run.bytes_.size();
  all.bytes_.reserve(bytes);
  using Head = std::pair<NumberPair, size_t>;  // next pair of a run, and the run
  std::priority_queue<Head, std::vector<Head>, std::greater<>> heads;
  std::vector<SortedPairs::Cursor> cursors;
  NumberPair pair;
  for (const SortedPairs &run : runs) {
    cursors.push_back(run.begin());
    if (cursors.back().next(&pair)) heads.push({pair, cursors.size() - 1});
  }
  while (!heads.empty()) {
    const auto [lowest, run] = heads.top();
    heads.pop();
    if (all.empty() || all.last_ != lowest) all.append(lowest);
    if (cursors[run].next(&pair)) heads.push({pair, run});
  }
  return all;
}

}  // namespace kest
